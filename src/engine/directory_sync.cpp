#include "engine/directory_sync.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include <android-base/logging.h>

int DirectorySync::sync() {
    if (!opened_) {
        fd_.reset(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        opened_ = true;
    }
    if (!fd_.ok() || fsync(fd_.get()) == 0 || errno == EINVAL) return 0;
    const int error = -errno;
    PLOG(ERROR) << "Unable to sync " << path_;
    return error;
}
