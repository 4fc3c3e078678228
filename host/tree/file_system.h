#pragma once

#include <cstdint>

#include "files/held_directory.h"

namespace host {

[[nodiscard]] bool isOnEcryptfs(const files::HeldDirectory& directory);
/// Bytes that an unprivileged process may still write there; 0 when unknown.
[[nodiscard]] uint64_t freeBytes(const files::HeldDirectory& directory);
[[nodiscard]] bool onOneFileSystem(const files::HeldDirectory& left,
                                   const files::HeldDirectory& right);

}  // namespace host
