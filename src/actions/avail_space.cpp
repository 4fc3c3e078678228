#include "actions/avail_space.h"

#include <sys/statvfs.h>

#include <android-base/logging.h>

namespace utils {

uint64_t GetAvailSpace(const std::string& path) {
    if (path.empty()) return 0;
    struct statvfs fileSystem = {};
    if (statvfs(path.c_str(), &fileSystem) < 0) {
        LOG(ERROR) << "Failed to compute free space for path " << path;
        return 0;
    }
    return uint64_t{fileSystem.f_bavail} * fileSystem.f_bsize;
}

}  // namespace utils
