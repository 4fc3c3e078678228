#include "tree/same_bytes.h"

#include <unistd.h>

#include <cerrno>
#include <vector>

#include <android-base/file.h>

#include "end/throw_errno.h"

using android::base::unique_fd;
using files::HeldDirectory;

namespace host {
namespace {

constexpr size_t kChunk = 65536;

/// The next bytes, fewer than asked only at the end of the file.
std::vector<char> readChunk(int file, const std::string& path) {
    std::vector<char> bytes(kChunk);
    size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t count =
            TEMP_FAILURE_RETRY(read(file, bytes.data() + filled, bytes.size() - filled));
        if (count < 0) throwErrno("cannot read " + path);
        if (count == 0) break;
        filled += static_cast<size_t>(count);
    }
    bytes.resize(filled);
    return bytes;
}

}  // namespace

bool sameBytes(const HeldDirectory& left, const std::string& leftName, const HeldDirectory& right,
               const std::string& rightName) {
    struct stat leftStatus {};
    struct stat rightStatus {};
    const std::string leftPath = left.pathOf(leftName);
    const std::string rightPath = right.pathOf(rightName);
    if (!left.look(leftName, &leftStatus)) throwErrno("cannot look at " + leftPath);
    if (!right.look(rightName, &rightStatus)) throwErrno("cannot look at " + rightPath);
    if (!S_ISREG(leftStatus.st_mode) || !S_ISREG(rightStatus.st_mode) ||
        leftStatus.st_size != rightStatus.st_size) {
        return false;
    }
    const unique_fd leftFile = left.openForReading(leftName, &leftStatus);
    if (!leftFile.ok()) throwErrno("cannot open " + leftPath);
    const unique_fd rightFile = right.openForReading(rightName, &rightStatus);
    if (!rightFile.ok()) throwErrno("cannot open " + rightPath);
    while (true) {
        const std::vector<char> bytes = readChunk(leftFile.get(), leftPath);
        if (bytes != readChunk(rightFile.get(), rightPath)) return false;
        if (bytes.size() < kChunk) return true;
    }
}

}  // namespace host
