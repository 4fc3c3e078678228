#include "manifest/held_link.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <vector>

#include <android-base/strings.h>

using files::HeldDirectory;

namespace host {
namespace {

bool sameTime(const timespec& left, const timespec& right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

int setTimes(int place, const timespec& accessed, const timespec& modified) {
    const std::array<timespec, 2> times = {accessed, modified};
    return utimensat(place, "", times.data(), AT_EMPTY_PATH) == 0 ? 0 : errno;
}

}  // namespace

HeldLink::HeldLink(const HeldDirectory& directory, const std::string& name) {
    if (!read(directory, name)) error_ = errno;
}

bool HeldLink::read(const HeldDirectory& directory, const std::string& name) {
    place_ = directory.openPlace(name);
    if (!place_.ok() || fstat(place_.get(), &status_) != 0) return false;
    if (!S_ISLNK(status_.st_mode)) {
        errno = EINVAL;
        return false;
    }
    std::array<char, PATH_MAX> text{};
    const ssize_t length = readlinkat(place_.get(), "", text.data(), text.size());
    if (length < 0) return false;
    text_.assign(text.data(), static_cast<size_t>(length));
    struct stat now {};
    if (fstat(place_.get(), &now) == 0 && !sameTime(now.st_atim, status_.st_atim)) {
        // Only its owner and root can; nobody else can move it either.
        (void)setTimes(place_.get(), status_.st_atim, {.tv_sec = 0, .tv_nsec = UTIME_OMIT});
    }
    return true;
}

std::string HeldLink::differences(const Metadata& metadata) const {
    std::vector<std::string> different;
    if (status_.st_uid != metadata.uid || status_.st_gid != metadata.gid) {
        different.emplace_back("owner");
    }
    if (!sameTime(status_.st_mtim, metadata.modified)) different.emplace_back("time");
    return android::base::Join(different, ", ");
}

PutBack HeldLink::putBack(const Metadata& metadata) const {
    PutBack result;
    const bool sameOwner = status_.st_uid == metadata.uid && status_.st_gid == metadata.gid;
    if (!sameOwner && (status_.st_uid != ourUser() || status_.st_nlink != 1)) {
        result.owner = result.time = EPERM;
        return result;
    }
    if (!sameOwner && fchownat(place_.get(), "", metadata.uid, metadata.gid, AT_EMPTY_PATH) != 0) {
        result.owner = errno;
    }
    result.time = setTimes(place_.get(), metadata.accessed, metadata.modified);
    return result;
}

bool isSameLink(const HeldLink& link, const std::string& text) {
    return link.error() == 0 && link.text() == text;
}

}  // namespace host
