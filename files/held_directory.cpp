#include "files/held_directory.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

using android::base::unique_fd;

namespace files {
namespace {

// No open waits: that of a pipe would, for whoever may never open its other end.
constexpr int kFileFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

constexpr const char* kNoAttribute = "user.vaultmover.none";

unique_fd openAgain(int parent, const std::string& name, int flags, mode_t mode = 0) {
    return unique_fd(
        static_cast<int>(TEMP_FAILURE_RETRY(openat(parent, name.c_str(), flags, mode))));
}

// Times of access are to be what they were: where it may, a reading leaves none. Whoever is neither
// root nor the owner may not.
unique_fd openUnseen(int parent, const std::string& name, int flags) {
    unique_fd opened = openAgain(parent, name, flags | O_NOATIME);
    return opened.ok() || errno != EPERM ? std::move(opened) : openAgain(parent, name, flags);
}

bool isDotEntry(std::string_view name) { return name == "." || name == ".."; }

int refusalOf(mode_t mode) { return S_ISDIR(mode) ? EISDIR : EINVAL; }

// Empties the handle, and keeps `error` from the calls that this makes.
unique_fd refuse(unique_fd file, int error) {
    file.reset();
    errno = error;
    return file;
}

// Nothing of the file is touched before this look.
unique_fd onlyForWriting(unique_fd file) {
    if (!file.ok()) return file;
    struct stat status = {};
    if (fstat(file.get(), &status) != 0) return refuse(std::move(file), errno);
    if (!S_ISREG(status.st_mode)) return refuse(std::move(file), refusalOf(status.st_mode));
    if (status.st_nlink != 1) return refuse(std::move(file), EMLINK);
    return file;
}

}  // namespace

HeldDirectory HeldDirectory::open(int parent, const std::string& name, int flags,
                                  const std::string& path) {
    HeldDirectory directory;
    directory.path_ = path;
    flags |= O_DIRECTORY | O_CLOEXEC;
    directory.fd_ = openUnseen(parent, name, O_RDONLY | flags);
    if (!directory.fd_.ok() && errno == EACCES) {
        directory.canBeListed_ = false;
        directory.fd_ = openAgain(parent, name, O_PATH | flags);
    }
    directory.error_ = directory.fd_.ok() ? 0 : -errno;
    return directory;
}

HeldDirectory HeldDirectory::openRoot(const std::string& path) {
    return open(AT_FDCWD, path, 0, path);
}

HeldDirectory HeldDirectory::openChild(const std::string& name) const {
    if (canUse(name)) return open(descriptor(), name, O_NOFOLLOW, pathOf(name));
    HeldDirectory refused;
    refused.path_ = pathOf(name);
    refused.error_ = -errno;
    return refused;
}

HeldDirectory HeldDirectory::openBelow(const std::string& relative) const {
    HeldDirectory directory = open(descriptor(), ".", 0, path_);
    if (!isOpen()) directory.error_ = error_;
    for (size_t begin = 0; begin < relative.size();) {
        const size_t end = std::min(relative.find('/', begin + 1), relative.size());
        directory = directory.openChild(relative.substr(begin + 1, end - begin - 1));
        begin = end;
    }
    return directory;
}

int HeldDirectory::descriptor() const { return listing_ ? dirfd(listing_.get()) : fd_.get(); }

bool HeldDirectory::canUse(const std::string& name) const {
    const bool isName = !name.empty() && !isDotEntry(name) && name.find('/') == std::string::npos;
    if (isOpen() && isName) return true;
    errno = isOpen() ? EINVAL : -error_;
    return false;
}

bool HeldDirectory::look(const std::string& name, struct stat* status) const {
    return canUse(name) && fstatat(descriptor(), name.c_str(), status, AT_SYMLINK_NOFOLLOW) == 0;
}

unique_fd HeldDirectory::openFile(const std::string& name, int flags, mode_t mode) const {
    if (!canUse(name)) return {};
    return openAgain(descriptor(), name, flags | kFileFlags, mode);
}

unique_fd HeldDirectory::openAny(const std::string& name) const {
    if (!canUse(name)) return {};
    return openUnseen(descriptor(), name, O_RDONLY | kFileFlags);
}

unique_fd HeldDirectory::openPlace(const std::string& name) const {
    return openFile(name, O_PATH, 0);
}

unique_fd HeldDirectory::openForReading(const std::string& name, struct stat* status) const {
    unique_fd file = openAny(name);
    if (!file.ok()) return file;
    if (fstat(file.get(), status) != 0) return refuse(std::move(file), errno);
    if (!S_ISREG(status->st_mode)) return refuse(std::move(file), refusalOf(status->st_mode));
    return file;
}

unique_fd HeldDirectory::openForWriting(const std::string& name) const {
    return onlyForWriting(openFile(name, O_WRONLY, 0));
}

unique_fd HeldDirectory::openOrCreate(const std::string& name, mode_t mode) const {
    return onlyForWriting(openFile(name, O_WRONLY | O_CREAT, mode));
}

unique_fd HeldDirectory::createNew(const std::string& name, mode_t mode) const {
    // With O_EXCL the file is new, so there is nothing to look at.
    return openFile(name, O_WRONLY | O_CREAT | O_EXCL, mode);
}

unique_fd HeldDirectory::createFile(const std::string& name, mode_t mode) const {
    unique_fd file = createNew(name, mode);
    if (file.ok() || errno != EEXIST) return file;
    struct stat status = {};
    if (!look(name, &status)) return file;
    if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) {
        return refuse(std::move(file), S_ISDIR(status.st_mode) ? EISDIR : EEXIST);
    }
    (void)remove(name);  // what stays makes the next open fail
    file = createNew(name, mode);
    if (file.ok() || errno != EEXIST) return file;
    file = openForWriting(name);
    if (file.ok() && ftruncate(file.get(), 0) != 0) return refuse(std::move(file), errno);
    return file;
}

bool HeldDirectory::rename(const std::string& from, const std::string& to) const {
    return canUse(from) && canUse(to) &&
           renameat(descriptor(), from.c_str(), descriptor(), to.c_str()) == 0;
}

bool HeldDirectory::remove(const std::string& name) const {
    return canUse(name) && unlinkat(descriptor(), name.c_str(), 0) == 0;
}

bool HeldDirectory::makeChild(const std::string& name, mode_t mode) const {
    return canUse(name) && mkdirat(descriptor(), name.c_str(), mode) == 0;
}

bool HeldDirectory::makeLink(const std::string& text, const std::string& name) const {
    return canUse(name) && symlinkat(text.c_str(), descriptor(), name.c_str()) == 0;
}

bool HeldDirectory::removeChild(const std::string& name) const {
    return canUse(name) && unlinkat(descriptor(), name.c_str(), AT_REMOVEDIR) == 0;
}

bool HeldDirectory::sync() const {
    if (!isOpen()) {
        errno = -error_;
        return false;
    }
    return !canBeListed_ || fsync(descriptor()) == 0 || errno == EINVAL;
}

bool HeldDirectory::syncFound() const {
    if (!sync()) return false;
    if (!canBeListed_ || fremovexattr(descriptor(), kNoAttribute) == 0) return true;
    // A file system that has failed says EROFS or EIO, before it looks for the attribute; no space
    // is needed for that.
    return errno != EROFS && errno != EIO;
}

bool HeldDirectory::beginListing() {
    if (!isOpen() || !canBeListed_) {
        errno = isOpen() ? EACCES : -error_;
        return false;
    }
    listing_.reset(android::base::Fdopendir(std::move(fd_)));
    return listing_ != nullptr;
}

const dirent* HeldDirectory::nextEntry() {
    while (true) {
        errno = 0;
        const dirent* const entry = readdir(listing_.get());
        if (entry == nullptr || !isDotEntry(entry->d_name)) return entry;
    }
}

}  // namespace files
