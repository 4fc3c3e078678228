#include "engine/copy_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "debug_log.h"
#include "platform/move_chunk.h"

using android::base::unique_fd;

namespace {

constexpr off_t kChunkLimit = 262144;  // bytes; bounds how long a pause request waits

constexpr off_t kReadAhead = off_t{8} << 20;  // bytes
constexpr off_t kReadAheadStep = kReadAhead / 2;

// The disk would otherwise stand still while a chunk is synced: what is read next is asked for some
// chunks early, half of the stretch at a time.
void readAhead(const unique_fd& source, off_t offset, off_t size) {
    if (size <= kChunkLimit || offset % kReadAheadStep != 0) return;
    const off_t begin = offset == 0 ? 0 : offset + kReadAhead - kReadAheadStep;
    // A hint: where it is refused the copy reads as it goes.
    if (begin < size) {
        (void)posix_fadvise(source.get(), begin, offset + kReadAhead - begin, POSIX_FADV_WILLNEED);
    }
}

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

unique_fd openSource(const FileArgument& file, struct stat* status) {
    unique_fd source = file.directory().openForReading(file.name(), status);
    if (!source.ok()) PLOG(ERROR) << "Failed to open source file " << file.path();
    return source;
}

int copyBytes(const unique_fd& source, off_t size, const std::string& name,
              const unique_fd& destination, const ProgressCallback& progress,
              const PauseQuery& isPaused, int* syncError) {
    if (syncError != nullptr) *syncError = 0;
    off_t offset = 0;
    bool done = false;
    while (!done) {
        off_t count = 0;
        if (size > 0) {
            if (isPaused()) return 0;
            readAhead(source, offset, size);
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

}  // namespace

int copyFile(const FileArgument& source, const FileArgument& destination,
             const ProgressCallback& progress, const PauseQuery& isPaused, int* syncError) {
    struct stat status = {};
    const unique_fd from = openSource(source, &status);
    if (!from.ok()) return -errno;
    const unique_fd to = destination.directory().openOrCreate(destination.name(), 0664);
    if (!to.ok()) {
        PLOG(ERROR) << "Failed to open dest file " << destination.path();
        return -errno;
    }
    return copyBytes(from, status.st_size, source.name(), to, progress, isPaused, syncError);
}

int copyFile(const FileArgument& source, unique_fd destination, const ProgressCallback& progress,
             const PauseQuery& isPaused, int* syncError) {
    struct stat status = {};
    const unique_fd from = openSource(source, &status);
    if (!from.ok()) return -errno;
    const unique_fd to = std::move(destination);
    return copyBytes(from, status.st_size, source.name(), to, progress, isPaused, syncError);
}
