#include "actions/avail_space.h"

#include <sys/statvfs.h>

#include <android-base/logging.h>

namespace utils {
namespace {

// `queried` is the result of the query that has filled `fileSystem`.
uint64_t availSpace(int queried, const struct statvfs& fileSystem, const std::string& path) {
    if (queried < 0) {
        LOG(ERROR) << "Failed to compute free space for path " << path;
        return 0;
    }
    return uint64_t{fileSystem.f_bavail} * fileSystem.f_bsize;
}

}  // namespace

uint64_t GetAvailSpace(const std::string& path) {
    if (path.empty()) return 0;
    struct statvfs fileSystem = {};
    const int queried = statvfs(path.c_str(), &fileSystem);
    return availSpace(queried, fileSystem, path);
}

uint64_t GetAvailSpace(const files::HeldDirectory& directory) {
    struct statvfs fileSystem = {};
    const int queried = fstatvfs(directory.descriptor(), &fileSystem);
    return availSpace(queried, fileSystem, directory.path());
}

}  // namespace utils
