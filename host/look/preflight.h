#pragma once

#include <functional>
#include <optional>

#include "look/findings.h"
#include "tree/held_tree.h"
#include "tree/roots.h"

namespace host {

struct PreflightOptions {
    bool allowPlain = false;  ///< a target that is no eCryptfs mount is all right
    bool replace = false;     ///< files of the same name in the target are all right
};

/// Looks at both trees and changes nothing. Lists of an `abandoned` preparation of that direction,
/// which a job would throw away before it looks, are passed over. `betweenDirectories` may throw.
[[nodiscard]] Preflight inspect(const HeldTree& tree, Direction direction,
                                const PreflightOptions& options, std::optional<Direction> abandoned,
                                const std::function<void()>& betweenDirectories);

}  // namespace host
