#pragma once

#include <cstdint>
#include <string>

#include "files/held_directory.h"

namespace utils {

/// Bytes that an unprivileged process may still use on the file system that holds `path`; 0 when
/// `path` is empty or the query fails (which is logged).
[[nodiscard]] uint64_t GetAvailSpace(const std::string& path);

/// The same of the file system that holds `directory`.
[[nodiscard]] uint64_t GetAvailSpace(const files::HeldDirectory& directory);

}  // namespace utils
