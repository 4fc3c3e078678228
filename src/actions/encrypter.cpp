#include "actions/encrypter.h"

#include "actions/crypt_walk.h"

bool Encrypter::encrypt(int32_t cmdFd, int32_t statusFd, const std::string& path, uint64_t baseSize,
                        uint64_t totalSize) {
    Encrypter encrypter(cmdFd, statusFd, baseSize, totalSize);
    if (!encrypter.init()) return false;
    encrypter.path = path;
    const bool walked = encrypter.encryptInternal("");
    reportEnd(encrypter, kEncryptWords);
    return walked;
}

bool Encrypter::encryptInternal(const std::string& relDir) {
    return walkTree(*this, path, relDir, kEncryptWords);
}
