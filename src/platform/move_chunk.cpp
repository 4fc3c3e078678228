#include "platform/move_chunk.h"

#include <sys/sendfile.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace platform {
namespace {

constexpr size_t kBufferSize = 262144;  // bytes; a whole chunk of the file copy

// Writes all of `data`, or as much as goes: a disk that fills up takes a part first and answers
// ENOSPC only to the next call.
size_t writeAsMuchAsGoes(int fd, const char* data, size_t size) {
    size_t written = 0;
    while (written < size) {
        const ssize_t result = TEMP_FAILURE_RETRY(write(fd, data + written, size - written));
        if (result <= 0) break;
        written += static_cast<size_t>(result);
    }
    return written;
}

ssize_t moveThroughBuffer(int destination, int source, off_t* offset, size_t count) {
    static std::vector<char> buffer(kBufferSize);
    size_t moved = 0;
    while (moved < count) {
        errno = 0;  // what a repeated call left behind is no reason for a short move
        const ssize_t got = TEMP_FAILURE_RETRY(
            pread(source, buffer.data(), std::min(count - moved, buffer.size()), *offset));
        if (got < 0) break;
        if (got == 0) {
            errno = 0;
            break;
        }
        const size_t size = static_cast<size_t>(got);
        const size_t written = writeAsMuchAsGoes(destination, buffer.data(), size);
        moved += written;
        *offset += static_cast<off_t>(written);
        if (written < size) break;
    }
    return moved == 0 && errno != 0 ? -1 : static_cast<ssize_t>(moved);
}

}  // namespace

ssize_t moveChunk(android::base::borrowed_fd destination, android::base::borrowed_fd source,
                  off_t* offset, size_t count) {
    errno = 0;
    const ssize_t sent = sendfile(destination.get(), source.get(), offset, count);
    if (sent >= 0 || (errno != EINVAL && errno != ENOSYS)) return sent;
    return moveThroughBuffer(destination.get(), source.get(), offset, count);
}

}  // namespace platform
