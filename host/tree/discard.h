#pragma once

#include <cstdint>

#include "files/held_directory.h"

namespace host {

struct Discarded {
    uint64_t bytes = 0;  ///< as the file system tells
    int error = 0;       ///< 0, or the negated errno: the file system cannot, or this user may not
};

/// Tells the device below the file system of `directory` which of its blocks are free, all of them,
/// after a sync, without which what was freed lately does not count. Takes as long as the device
/// needs, and no signal but SIGKILL ends it.
[[nodiscard]] Discarded discardFreeSpace(const files::HeldDirectory& directory);

}  // namespace host
