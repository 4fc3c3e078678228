#pragma once

#include <string>

#include <android-base/unique_fd.h>

namespace utils {

/// Writes `text` (any bytes) and one line feed to `fd`, which stays the caller's, going on after
/// short and interrupted writes. Returns true when every byte was written, else false with errno
/// set. Neither logs nor syncs.
[[nodiscard]] bool writeNewlineToFd(const std::string& text, android::base::borrowed_fd fd);

}  // namespace utils
