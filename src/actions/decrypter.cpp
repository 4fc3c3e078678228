#include "actions/decrypter.h"

#include "actions/crypt_walk.h"

bool Decrypter::decrypt(int32_t cmdFd, int32_t statusFd, const std::string& path, uint64_t baseSize,
                        uint64_t totalSize) {
    Decrypter decrypter(cmdFd, statusFd, baseSize, totalSize);
    if (!decrypter.init()) return false;
    decrypter.path = path;
    const bool walked = decrypter.decryptInternal("");
    reportEnd(decrypter, kDecryptWords);
    return walked;
}

bool Decrypter::decryptInternal(const std::string& relDir) {
    return walkTree(*this, path, relDir, kDecryptWords);
}
