#include "records/proccess_generater.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <android-base/file.h>

#include "channel/write_newline.h"
#include "debug_log.h"
#include "records/process_file.h"

namespace {

// Whether a pipe or a device stands at `path`: opening a pipe would wait for ever, and what is
// written to a device is no list.
bool isSpecial(const std::string& path) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) return false;
    return S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode);
}

}  // namespace

ProccessGenerater::ProccessGenerater(const std::string& directory) : directory_(directory) {
    DEBUG_LOG() << "ProccessGenerater construct +++ ";
}

ProccessGenerater::~ProccessGenerater() {
    // Not looked at: a list that a power cut leaves short only means files that stay where they
    // are; nothing is moved or deleted that is not listed.
    if (fd_.ok()) (void)fsync(fd_.get());
    DEBUG_LOG() << "ProccessGenerater destory --- ";
}

bool ProccessGenerater::init() {
    const std::string path = process_file::pathIn(directory_);
    // Not looked at: what could not be removed is truncated by the open or makes it fail.
    (void)android::base::RemoveFileIfExists(path);
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
    if (isSpecial(path)) {
        errno = EEXIST;
    } else {
        fd_.reset(static_cast<int>(TEMP_FAILURE_RETRY(open(path.c_str(), kFlags, 0666))));
    }
    if (!fd_.ok()) {
        PLOG(ERROR) << "Failed to create file  " << path;
        return false;
    }
    if (!process_file::writeHeader({}, fd_)) {
        PLOG(ERROR) << "Failed to write file  " << path;
        return false;
    }
    (void)fsync(fd_.get());  // not looked at, for the same reason as in the destructor
    return true;
}

bool ProccessGenerater::pushNewFile(const std::string& name) {
    if (name.empty() || !fd_.ok()) {
        LOG(ERROR) << "Failed to push new file : invalid";
        return true;
    }
    if (!utils::writeNewlineToFd(name, fd_)) {
        LOG(ERROR) << "Failed to write file : " << name;
        return false;
    }
    DEBUG_LOG() << "pushNewFile: " << name;
    return true;
}
