#include "engine/copy_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <android-base/file.h>
#include <android-base/unique_fd.h>

#include "debug_log.h"
#include "platform/move_chunk.h"

using android::base::unique_fd;

namespace {

constexpr off_t kChunkLimit = 262144;  // bytes; bounds how long a pause request waits

// Keeps the first failure: later ones add nothing, and a later success takes nothing back.
void syncDestination(const unique_fd& destination, int* syncError) {
    if (fsync(destination.get()) != 0 && syncError != nullptr && *syncError == 0) {
        *syncError = -errno;
    }
}

// Returns 0 when `count` bytes were moved, else a negated errno, which errno holds too.
int moveWholeChunk(const unique_fd& destination, const unique_fd& source, off_t* offset,
                   size_t count) {
    const ssize_t moved = platform::moveChunk(destination, source, offset, count);
    if (moved >= 0 && static_cast<size_t>(moved) == count) return 0;
    // The source has shrunk, or the kernel gave no reason: a partial copy must not pass for whole.
    if (errno == 0) errno = EIO;
    const int error = -errno;
    PLOG(ERROR) << "Copying failed!";
    return error;
}

}  // namespace

int copyFile(const std::string& sourcePath, const std::string& destinationPath,
             const ProgressCallback& progress, const PauseQuery& isPaused, int* syncError) {
    if (syncError != nullptr) *syncError = 0;
    const unique_fd source(open(sourcePath.c_str(), O_RDONLY));
    if (!source.ok()) {
        const int error = -errno;
        PLOG(ERROR) << "Failed to open source file " << sourcePath;
        return error;
    }
    const unique_fd destination(open(destinationPath.c_str(), O_WRONLY | O_CREAT, 0664));
    if (!destination.ok()) {
        const int error = -errno;
        PLOG(ERROR) << "Failed to open dest file " << destinationPath;
        return error;
    }
    struct stat status = {};
    if (stat(sourcePath.c_str(), &status) != 0) return -errno;

    const off_t size = status.st_size;
    const std::string name = android::base::Basename(sourcePath);
    off_t offset = 0;
    bool done = false;
    while (!done) {
        off_t count = 0;
        if (size > 0) {
            if (isPaused()) return 0;
            count = std::min(size - offset, kChunkLimit);
            const int error =
                moveWholeChunk(destination, source, &offset, static_cast<size_t>(count));
            if (error != 0) return error;
            syncDestination(destination, syncError);
        }
        done = offset >= size;
        if (progress) {
            const unsigned long bytes =
                static_cast<unsigned long>(count) + (done ? name.size() : 0);
            progress(bytes, done);
            DEBUG_LOG() << "copyFile [" << name << "]: " << size << " " << bytes << " " << done;
        }
    }
    syncDestination(destination, syncError);
    return 0;
}
