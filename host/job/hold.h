#pragma once

#include <optional>
#include <string>

#include "job/job_record.h"
#include "tree/held_tree.h"
#include "tree/lock.h"

namespace host {

/// The locks of a tree that nobody works on. Throws JobEnd (refused) when somebody does.
[[nodiscard]] TreeLock lockTree(const HeldTree& tree);

/// Who works on the tree or on one of its two roots.
[[nodiscard]] Holder holderOf(const HeldTree& tree);

/// In a sentence, for a command that must wait. `record` is that of the tree, if it has one.
[[nodiscard]] std::string explainHolder(const HeldTree& tree, Holder holder,
                                        const std::optional<JobRecord>& record);

}  // namespace host
