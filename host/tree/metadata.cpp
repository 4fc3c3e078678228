#include "tree/metadata.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <vector>

#include <android-base/strings.h>

namespace host {

Metadata metadataOf(const struct stat& status, const std::string& relative) {
    return {.directory = S_ISDIR(status.st_mode),
            .mode = status.st_mode & 07777,
            .uid = status.st_uid,
            .gid = status.st_gid,
            .modified = status.st_mtim,
            .size = static_cast<uint64_t>(status.st_size),
            .relative = relative};
}

bool isOurs(const struct stat& status) {
    return status.st_uid == geteuid() && status.st_nlink == 1 && (status.st_mode & 022) == 0;
}

std::string PutBack::describe() const {
    std::string text;
    const auto add = [&text](const char* what, int error) {
        if (error == 0) return;
        if (!text.empty()) text += ", ";
        text += std::string(what) + ": " + std::generic_category().message(error);
    };
    add("owner", owner);
    add("permissions", mode);
    add("time", time);
    return text;
}

PutBack putBack(const Metadata& metadata, int descriptor) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) return {.owner = errno, .mode = errno, .time = errno};
    const bool sameOwner = status.st_uid == metadata.uid && status.st_gid == metadata.gid;
    const bool ours =
        status.st_uid == geteuid() && (!metadata.directory || status.st_uid == metadata.uid);
    if (!sameOwner && !ours) {
        return {.owner = EPERM, .mode = EPERM, .time = EPERM};
    }
    PutBack result;
    if (!sameOwner && fchown(descriptor, metadata.uid, metadata.gid) != 0) result.owner = errno;
    // With another owner the set-ID bits would lend out rights that were never meant.
    const mode_t mode = result.owner == 0 ? metadata.mode : metadata.mode & 0777;
    if (fchmod(descriptor, mode) != 0) result.mode = errno;
    result.time = putBackTime(metadata.modified, descriptor);
    return result;
}

std::string differences(const Metadata& metadata, int descriptor) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) return std::generic_category().message(errno);
    const Metadata found = metadataOf(status, metadata.relative);
    std::vector<std::string> different;
    if (found.uid != metadata.uid || found.gid != metadata.gid) different.emplace_back("owner");
    if (found.mode != metadata.mode) different.emplace_back("permissions");
    if (found.modified.tv_sec != metadata.modified.tv_sec ||
        found.modified.tv_nsec != metadata.modified.tv_nsec) {
        different.emplace_back("time");
    }
    return android::base::Join(different, ", ");
}

int putBackTime(const timespec& modified, int descriptor) {
    const timespec times[2] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT}, modified};
    return futimens(descriptor, times) == 0 ? 0 : errno;
}

}  // namespace host
