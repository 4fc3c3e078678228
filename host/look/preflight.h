#pragma once

#include <functional>
#include <optional>

#include "look/findings.h"
#include "manifest/metadata.h"
#include "tree/held_tree.h"
#include "tree/roots.h"

namespace host {

struct PreflightOptions {
    bool allowPlain = false;      ///< a target that is no eCryptfs mount is all right
    bool replace = false;         ///< files of the same name in the target are all right
    bool dropAttributes = false;  ///< what the target does not take of them may stay behind
};

/// Whoever looks on; each may throw, and may be empty, `begin` and `each` both or neither.
struct Onlooker {
    /// The roots themselves are no reason to refuse: what is in them comes next.
    std::function<void()> begin = nullptr;
    std::function<void()> betweenDirectories = nullptr;
    /// Once begun: each directory of the source before what is in it, its files and links before
    /// its subdirectories.
    std::function<void(Metadata)> each = nullptr;
};

/// Looks at both trees and changes nothing. Lists of an `abandoned` preparation of that direction,
/// which a job would throw away before it looks, are passed over.
[[nodiscard]] Preflight inspect(const HeldTree& tree, Direction direction,
                                const PreflightOptions& options, std::optional<Direction> abandoned,
                                const Onlooker& onlooker);

}  // namespace host
