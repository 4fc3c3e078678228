#pragma once

#include <sys/types.h>

#include <cstddef>

#include <android-base/unique_fd.h>

namespace platform {

/// Moves up to `count` bytes from `*offset` of `source` to the current position of `destination`
/// and advances `*offset` by the bytes moved.
///
/// Returns the bytes moved, or -1 with errno set when none were. A result short of `count` means
/// that the move stopped early: errno then tells why, and is 0 when the source simply ended or the
/// kernel gave no reason.
///
/// The bytes go through sendfile. Kernels from 5.10 on refuse it (EINVAL) into a file system
/// without a splice write of its own, which eCryptfs is; the same range then goes through a
/// buffer that is kept from call to call. Not for use by several threads at once.
ssize_t moveChunk(android::base::borrowed_fd destination, android::base::borrowed_fd source,
                  off_t* offset, size_t count);

}  // namespace platform
