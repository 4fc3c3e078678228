#include "tree/content_sum.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <vector>

#include "end/throw_errno.h"
#include "tree/hex.h"

namespace host {
namespace {

constexpr size_t kChunk = 65536;

/// What fails here is a lack of memory or a spoilt library.
void require(int success) {
    if (success == 1) return;
    errno = ENOMEM;
    throwErrno("cannot sum up a file");
}

}  // namespace

std::string contentSum(int descriptor, const std::string& path) {
    // Nobody's configuration file has a say in this.
    require(OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr));
    const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(),
                                                                     EVP_MD_CTX_free);
    require(context != nullptr ? 1 : 0);
    require(EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr));
    std::vector<char> bytes(kChunk);
    for (off_t offset = 0;;) {
        const ssize_t count =
            TEMP_FAILURE_RETRY(pread(descriptor, bytes.data(), bytes.size(), offset));
        if (count < 0) throwErrno("cannot read " + path);
        if (count == 0) break;
        require(EVP_DigestUpdate(context.get(), bytes.data(), static_cast<size_t>(count)));
        offset += count;
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> sum{};
    unsigned int length = 0;
    require(EVP_DigestFinal_ex(context.get(), sum.data(), &length));
    return inHex({reinterpret_cast<const char*>(sum.data()), length});
}

}  // namespace host
