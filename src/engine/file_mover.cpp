#include "engine/file_mover.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>

#include <android-base/file.h>

#include "actions/avail_space.h"
#include "debug_log.h"

using android::base::RemoveFileIfExists;

/// The names that one file goes through.
struct FileMover::Paths {
    std::string base;          ///< The file to move.
    std::string intermediate;  ///< A copy in progress, never trusted.
    std::string stash;         ///< A complete copy that waits for its final name.
    std::string target;        ///< The moved file.
};

namespace {

mode_t modeOf(const std::string& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

// Returns 0 when something stands at `path`, else the negated errno of the look.
int look(const std::string& path) { return access(path.c_str(), F_OK) == 0 ? 0 : -errno; }

// The same, and stores what kind of thing it is.
int look(const std::string& path, mode_t* mode) {
    *mode = 0;
    const int result = look(path);
    if (result != 0) return result;
    *mode = modeOf(path);
    return *mode != 0 ? 0 : -errno;
}

// Whether a look that failed with `error` proves that nothing stands there. A disk error does not,
// and a file must not count as moved because of one.
bool provesAbsence(int error) {
    return error == -ENOENT || error == -ENOTDIR || error == -ENAMETOOLONG || error == -ELOOP;
}

bool renameFile(const std::string& from, const std::string& to, int& error) {
    DEBUG_LOG() << "rename file " << from << " to " << to;
    if (rename(from.c_str(), to.c_str()) == 0) return true;
    error = -errno;
    PLOG(ERROR) << "Unable to rename " << from << " to " << to;
    return false;
}

bool syncDirectory(DirectorySync& directory, int& error) {
    const int result = directory.sync();
    if (result != 0) error = result;
    return result == 0;
}

}  // namespace

FileMover::FileMover(const std::string& sourceDirectory, const std::string& targetDirectory,
                     const ProgressCallback& progress, const PauseQuery& isPaused,
                     const NoSpaceCallback& nospace)
    : sourceDirectory_(sourceDirectory),
      targetDirectory_(targetDirectory),
      progress_(progress),
      isPaused_(isPaused),
      nospace_(nospace),
      source_(sourceDirectory),
      target_(targetDirectory) {}

// Why no stop, kill or power cut loses a file: at every instant its bytes are whole under its
// base, stash or target name, also on the disk.
//   - The copy grows under the intermediate name, which nobody trusts; a restart begins it anew.
//   - It is synced before it gets the stash name, so a stash is always a whole copy, and the base
//     is not needed any more.
//   - The target directory is synced before the base is deleted. Without that sync the disk may
//     hold the deletion but not yet the stash name, and the file is in neither directory.
//   - A restart that finds a stash only deletes the base (again) and gives the stash its final
//     name; one that finds neither stash nor base knows that the move was finished.
//   - Both directories are synced before the caller counts the file as done (see syncNames).
FileMover::Result FileMover::move(const std::string& name, int& error) {
    // A listing yields no such name, so somebody has tampered with the list; "./x" would take the
    // file "x" beside the target directory for a stash and move it in.
    if (name.find('/') != std::string::npos) {
        LOG(ERROR) << "Not a file name: " << name;
        error = -EINVAL;
        return Result::kFailed;
    }
    const std::string intermediateName = ".ecryptfs_intermediate_" + name;
    const Paths paths = {sourceDirectory_ + "/" + name, targetDirectory_ + "/" + intermediateName,
                         targetDirectory_ + "/." + name, targetDirectory_ + "/" + name};
    DEBUG_LOG() << "CryptWorker baseFileNmae: " << name;
    DEBUG_LOG() << "CryptWorker baseFilePath: " << paths.base;
    DEBUG_LOG() << "CryptWorker stashFilePath: " << paths.stash;
    DEBUG_LOG() << "CryptWorker intermediateNmae: " << intermediateName;
    DEBUG_LOG() << "CryptWorker intermediateFilePath: " << paths.intermediate;

    // Only a regular file is a copy that an earlier run completed. Taking a directory or a link of
    // that name for one would delete the only copy of the file.
    mode_t stashMode = 0;
    const int stashLook = look(paths.stash, &stashMode);
    if (stashLook == 0 && S_ISREG(stashMode)) {
        LOG(INFO) << "stash file exists:" << paths.stash;
        return commit(paths, error);
    }
    const int baseLook = look(paths.base);
    if (baseLook == 0) {
        const Result result = transfer(paths, error);
        return result == Result::kDone ? commit(paths, error) : result;
    }
    errno = -baseLook;
    PLOG(ERROR) << "base file is not exists:" << paths.base;
    for (const int lookError : {stashLook, baseLook}) {
        if (lookError == 0 || provesAbsence(lookError)) continue;
        error = lookError;
        return Result::kFailed;
    }
    return Result::kDone;
}

// Without the target's sync a power cut could leave a file that counts as done under its stash
// name; without the source's it could bring the base back beside its moved copy. Nobody would ever
// look at either again.
bool FileMover::syncNames(int& error) {
    return syncDirectory(target_, error) && syncDirectory(source_, error);
}

FileMover::Result FileMover::transfer(const Paths& paths, int& error) {
    if (!createIntermediate(paths, error) || !checkBase(paths, error) || !copy(paths, error)) {
        return Result::kFailed;
    }
    if (isPaused_()) {
        LOG(INFO) << "!!! crypto paused !!!";
        DEBUG_LOG() << "remove file: " << paths.intermediate;
        (void)RemoveFileIfExists(paths.intermediate);  // the next run removes what stays
        return Result::kPaused;
    }
    return renameFile(paths.intermediate, paths.stash, error) ? Result::kDone : Result::kFailed;
}

FileMover::Result FileMover::commit(const Paths& paths, int& error) {
    if (!syncDirectory(target_, error)) return Result::kFailed;
    DEBUG_LOG() << "remove file " << paths.base;
    (void)RemoveFileIfExists(paths.base);  // a base that cannot be deleted is one copy too many
    return renameFile(paths.stash, paths.target, error) ? Result::kDone : Result::kFailed;
}

bool FileMover::createIntermediate(const Paths& paths, int& error) {
    (void)RemoveFileIfExists(paths.stash);  // the rename onto what stays tells
    const bool removed = RemoveFileIfExists(paths.intermediate);
    DEBUG_LOG() << "create file: " << paths.intermediate;
    // What is in the way and cannot be removed makes the open fail, or is an earlier copy and is
    // emptied. But opening a pipe would wait for ever, and a link or device leads elsewhere.
    const mode_t mode = removed ? 0 : modeOf(paths.intermediate);
    bool created = false;
    if (mode == 0 || S_ISREG(mode) || S_ISDIR(mode)) {
        created = std::ofstream(paths.intermediate).is_open();
    } else {
        errno = EEXIST;
    }
    if (created) return true;
    error = -errno;
    PLOG(ERROR) << "Fail to create file " << paths.intermediate;
    return false;
}

bool FileMover::checkBase(const Paths& paths, int& error) {
    struct stat status = {};
    // Not looked at: a file that cannot be measured counts as 0 bytes here, and the copy tells.
    (void)stat(paths.base.c_str(), &status);
    if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode)) {
        // It was a file when it was listed. Opening a pipe would wait for ever, and what a device
        // gives is not its own.
        LOG(ERROR) << "Not a file any more: " << paths.base;
        error = -EINVAL;
        return false;
    }
    const uint64_t size = static_cast<uint64_t>(status.st_size);
    const uint64_t free = utils::GetAvailSpace(targetDirectory_);
    DEBUG_LOG() << "CryptWorker file size: " << size << " freeSize: " << free;
    if (free >= size) return true;
    LOG(ERROR) << "Free space not enough, need size: " << size << ", freeSize:" << free;
    error = -ENOSPC;
    if (nospace_) nospace_(size, free);
    return false;
}

bool FileMover::copy(const Paths& paths, int& error) {
    DEBUG_LOG() << "copy file " << paths.base << " to " << paths.intermediate;
    int syncError = 0;
    const int result = copyFile(paths.base, paths.intermediate, progress_, isPaused_, &syncError);
    // A copy that did not reach the disk is no copy, unless this destination cannot be synced.
    if (result == 0 && (syncError == 0 || syncError == -EINVAL)) return true;
    if (result == 0) errno = -syncError;
    PLOG(ERROR) << "Fail to copyFile " << paths.base << " to " << paths.intermediate;
    (void)RemoveFileIfExists(paths.intermediate);  // the next run removes what stays
    error = result == 0 ? syncError : -errno;
    return false;
}
