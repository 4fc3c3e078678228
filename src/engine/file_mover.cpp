#include "engine/file_mover.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "actions/avail_space.h"
#include "debug_log.h"

using android::base::unique_fd;
using files::HeldDirectory;

/// The names that one file goes through.
struct FileMover::Names {
    std::string base;          ///< The file to move; also the name of the moved file.
    std::string intermediate;  ///< A copy in progress, never trusted.
    std::string stash;         ///< A complete copy that waits for its final name.
};

/// What stands at a name. One look answers all questions about it.
struct FileMover::Look {
    int error = 0;  ///< 0, or the negated errno of the look
    struct stat status = {};

    Look(const HeldDirectory& directory, const std::string& name) {
        if (!directory.look(name, &status)) error = -errno;
    }
    [[nodiscard]] bool isFile() const { return error == 0 && S_ISREG(status.st_mode); }
    [[nodiscard]] bool isLink() const { return error == 0 && S_ISLNK(status.st_mode); }
    /// Whether nothing stands there for certain. A disk error proves nothing, nor does a link in
    /// place of the directory, and a file must not count as moved because of one.
    [[nodiscard]] bool provesAbsence() const { return error == -ENOENT || error == -ENAMETOOLONG; }
};

namespace {

// What a moved file is until the host gives it more. The umask is taken off here, because the
// kernel leaves that to the access control list which a directory may hand down, and its owner
// could let himself in by one.
mode_t modeOfCopies() {
    static const mode_t mode = [] {
        const mode_t mask = umask(0);
        (void)umask(mask);  // cannot fail
        return 0666 & ~mask;
    }();
    return mode;
}

bool fail(const HeldDirectory& directory, int& error) {
    error = -errno;
    PLOG(ERROR) << "Unable to sync " << directory.path();
    return false;
}

bool syncDirectory(const HeldDirectory& directory, int& error) {
    return directory.sync() || fail(directory, error);
}

bool syncFound(const HeldDirectory& directory, int& error) {
    return directory.syncFound() || fail(directory, error);
}

}  // namespace

FileMover::FileMover(const HeldDirectory& source, const HeldDirectory& target,
                     const ProgressCallback& progress, const PauseQuery& isPaused,
                     const NoSpaceCallback& nospace)
    : source_(source),
      target_(target),
      progress_(progress),
      isPaused_(isPaused),
      nospace_(nospace) {}

// Why no stop, kill or power cut loses a file: at every instant its bytes are whole under its
// base, stash or target name, also on the disk.
//   - The copy grows under the intermediate name, which nobody trusts; a restart begins it anew.
//   - It is synced before it gets the stash name, so a stash is always a whole copy, and the base
//     is not needed any more.
//   - The target directory is synced before the base is deleted. Without that sync the disk may
//     hold the deletion but not yet the stash name, and the file is in neither directory.
//   - A restart that finds a stash only deletes the base (again) and gives the stash its final
//     name; one that finds neither stash nor base knows that the move was finished. What it finds
//     may be missing on the disk if the earlier run ended with a failing write, and after another
//     mount it is: so a restart first sees that the file system is sound (see syncFound).
//   - Both directories are synced before the caller counts the file as done (see syncNames).
FileMover::Result FileMover::move(const std::string& name, int& error) {
    // A listing yields no such name, so somebody has tampered with the list; "./x" would take the
    // file "x" beside the target directory for a stash and move it in.
    if (name.find('/') != std::string::npos) {
        LOG(ERROR) << "Not a file name: " << name;
        error = -EINVAL;
        return Result::kFailed;
    }
    const Names names = {name, ".ecryptfs_intermediate_" + name, "." + name};
    DEBUG_LOG() << "CryptWorker baseFileNmae: " << name;
    DEBUG_LOG() << "CryptWorker baseFilePath: " << source_.pathOf(name);
    DEBUG_LOG() << "CryptWorker stashFilePath: " << target_.pathOf(names.stash);
    DEBUG_LOG() << "CryptWorker intermediateNmae: " << names.intermediate;
    DEBUG_LOG() << "CryptWorker intermediateFilePath: " << target_.pathOf(names.intermediate);

    const Look stash(target_, names.stash);
    const Look base(source_, names.base);
    // Only a regular file is a copy that an earlier run completed. Taking a directory or a link of
    // that name for one would delete the only copy of the file.
    if (stash.isFile()) {
        LOG(INFO) << "stash file exists:" << target_.pathOf(names.stash);
        return syncFound(target_, error) ? commit(names, base, error) : Result::kFailed;
    }
    if (base.error == 0) {
        const Result result = transfer(names, base, stash, error);
        return result == Result::kDone ? commit(names, base, error) : result;
    }
    errno = -base.error;
    PLOG(ERROR) << "base file is not exists:" << source_.pathOf(names.base);
    for (const Look* const look : {&stash, &base}) {
        if (look->error == 0 || look->provesAbsence()) continue;
        error = look->error;
        return Result::kFailed;
    }
    const bool sound = syncFound(target_, error) && syncFound(source_, error);
    return sound ? Result::kDone : Result::kFailed;
}

// Without the target's sync a power cut could leave a file that counts as done under its stash
// name; without the source's it could bring the base back beside its moved copy. Nobody would ever
// look at either again.
bool FileMover::syncNames(int& error) {
    return syncDirectory(target_, error) && syncDirectory(source_, error);
}

FileMover::Result FileMover::transfer(const Names& names, const Look& base, const Look& stash,
                                      int& error) {
    unique_fd intermediate = createIntermediate(names, stash, error);
    if (!intermediate.ok() || !checkBase(names, base, error) ||
        !copy(names, std::move(intermediate), error)) {
        return Result::kFailed;
    }
    if (isPaused_()) {
        LOG(INFO) << "!!! crypto paused !!!";
        DEBUG_LOG() << "remove file: " << target_.pathOf(names.intermediate);
        (void)target_.remove(names.intermediate);  // the next run removes what stays
        return Result::kPaused;
    }
    return renameInTarget(names.intermediate, names.stash, error) ? Result::kDone : Result::kFailed;
}

FileMover::Result FileMover::commit(const Names& names, const Look& base, int& error) {
    if (!syncDirectory(target_, error)) return Result::kFailed;
    DEBUG_LOG() << "remove file " << source_.pathOf(names.base);
    if (base.isFile() || base.isLink()) {
        (void)source_.remove(names.base);  // a base that cannot be deleted is one copy too many
    }
    return renameInTarget(names.stash, names.base, error) ? Result::kDone : Result::kFailed;
}

unique_fd FileMover::createIntermediate(const Names& names, const Look& stash, int& error) {
    if (stash.isLink()) (void)target_.remove(names.stash);  // the rename onto what stays tells
    DEBUG_LOG() << "create file: " << target_.pathOf(names.intermediate);
    unique_fd intermediate = target_.createFile(names.intermediate, modeOfCopies());
    if (!intermediate.ok()) {
        error = -errno;
        PLOG(ERROR) << "Fail to create file " << target_.pathOf(names.intermediate);
    }
    return intermediate;
}

bool FileMover::checkBase(const Names& names, const Look& base, int& error) {
    const mode_t mode = base.status.st_mode;
    if (S_ISFIFO(mode) || S_ISCHR(mode) || S_ISBLK(mode)) {
        // It was a file when it was listed, and what a device gives is not its own.
        LOG(ERROR) << "Not a file any more: " << source_.pathOf(names.base);
        error = -EINVAL;
        return false;
    }
    const uint64_t size = static_cast<uint64_t>(base.status.st_size);
    const uint64_t free = utils::GetAvailSpace(target_);
    DEBUG_LOG() << "CryptWorker file size: " << size << " freeSize: " << free;
    if (free >= size) return true;
    LOG(ERROR) << "Free space not enough, need size: " << size << ", freeSize:" << free;
    error = -ENOSPC;
    if (nospace_) nospace_(size, free);
    return false;
}

bool FileMover::copy(const Names& names, unique_fd intermediate, int& error) {
    const FileArgument base(source_, names.base);
    const auto copyPath = [&] { return target_.pathOf(names.intermediate); };
    DEBUG_LOG() << "copy file " << base.path() << " to " << copyPath();
    int syncError = 0;
    const int result = copyFile(base, std::move(intermediate), progress_, isPaused_, &syncError);
    // A copy that did not reach the disk is no copy, unless this destination cannot be synced.
    if (result == 0 && (syncError == 0 || syncError == -EINVAL)) return true;
    if (result == 0) errno = -syncError;
    PLOG(ERROR) << "Fail to copyFile " << base.path() << " to " << copyPath();
    (void)target_.remove(names.intermediate);  // the next run removes what stays
    error = result == 0 ? syncError : -errno;
    return false;
}

bool FileMover::renameInTarget(const std::string& from, const std::string& to, int& error) {
    DEBUG_LOG() << "rename file " << target_.pathOf(from) << " to " << target_.pathOf(to);
    if (target_.rename(from, to)) return true;
    error = -errno;
    PLOG(ERROR) << "Unable to rename " << target_.pathOf(from) << " to " << target_.pathOf(to);
    return false;
}
