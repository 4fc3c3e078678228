#include "tree.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <thread>

#include "durable_file.h"
#include "job_end.h"
#include "names.h"

namespace fs = std::filesystem;

namespace host {
namespace {

std::string below(const std::string& directory, std::string_view name) {
    return directory + "/" + std::string(name);
}

/// The locked directory, or an empty handle when somebody else has it.
android::base::unique_fd lockDirectory(const std::string& path) {
    android::base::unique_fd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.ok()) throwErrno("cannot open " + path);
    if (flock(directory.get(), LOCK_EX | LOCK_NB) == 0) return directory;
    if (errno == EWOULDBLOCK) return {};
    throw std::system_error(errno, std::generic_category(), "cannot lock " + path);
}

}  // namespace

std::string_view toWord(Direction direction) {
    return direction == Direction::kEncrypt ? "encrypt" : "decrypt";
}

std::string Tree::recordPath() const { return below(plain, names::kJobRecord); }
std::string Tree::manifestPath() const { return below(plain, names::kManifest); }
std::string Tree::markPath() const { return below(encrypted, names::kJobRecord); }

Tree resolveTree(const std::string& directory) {
    std::error_code error;
    const fs::path path = fs::weakly_canonical(fs::absolute(directory), error);
    if (error) {
        throw JobEnd(ExitStatus::kRefused, "cannot resolve " + directory + ": " + error.message());
    }
    std::string plain = path.string();
    while (plain.size() > 1 && plain.ends_with('/')) plain.pop_back();
    if (plain == "/") throw JobEnd(ExitStatus::kRefused, "the root directory cannot be moved");
    const std::string encrypted = plain + std::string(names::kEncryptedSuffix);
    return {.plain = plain, .encrypted = encrypted};
}

bool isDirectory(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool isOnEcryptfs(const std::string& path) {
    struct statfs status {};
    return statfs(path.c_str(), &status) == 0 && status.f_type == ECRYPTFS_SUPER_MAGIC;
}

uint64_t freeBytes(const std::string& path) {
    struct statvfs status {};
    if (statvfs(path.c_str(), &status) != 0) return 0;
    return uint64_t{status.f_bavail} * status.f_bsize;
}

bool onOneFileSystem(const std::string& left, const std::string& right) {
    // eCryptfs passes on the identity of the file system below it, but has a device of its own.
    struct statvfs one {};
    struct statvfs other {};
    if (statvfs(left.c_str(), &one) != 0 || statvfs(right.c_str(), &other) != 0) return false;
    if (one.f_fsid != 0 && one.f_fsid == other.f_fsid) return true;
    struct stat first {};
    struct stat second {};
    return stat(left.c_str(), &first) == 0 && stat(right.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev;
}

TreeLock::TreeLock(const Tree& tree, Holder& holder) : tree_(lockDirectory(tree.plain)) {
    if (isDirectory(tree.encrypted)) host_ = lockDirectory(tree.encrypted);
    if (tree_.ok()) {
        holder = Holder::kNobody;
        return;
    }
    holder = host_.ok() ? Holder::kWorkerAlone : Holder::kHost;
    host_.reset();
}

Holder lookAtLock(const Tree& tree) {
    if (!isDirectory(tree.plain)) return Holder::kNobody;
    Holder holder = Holder::kNobody;
    // cppcheck-suppress unreadVariable ; it is held while we look
    const TreeLock lock(tree, holder);
    return holder;
}

Holder lookAtLockPatiently(const Tree& tree) {
    constexpr std::chrono::milliseconds kPause(50);
    constexpr int kAttempts = 10;
    for (int i = 1; i < kAttempts && lookAtLock(tree) == Holder::kWorkerAlone; ++i) {
        std::this_thread::sleep_for(kPause);
    }
    return lookAtLock(tree);
}

}  // namespace host
