#pragma once

#include <functional>

#include "files/held_directory.h"

namespace host {

/// Makes the target's directories that are missing, with the source's modes and owners, and syncs
/// them: a file must not arrive in a directory that a power cut can take away. The roots are there
/// already and stay as they are. Throws std::system_error.
void makeTargetDirectories(const files::HeldDirectory& source, const files::HeldDirectory& target,
                           const std::function<void()>& betweenDirectories);

/// What a root hid stays hidden: gives the target's root the owner and mode of the source's, before
/// the first file arrives. Throws JobEnd (refused) where that cannot be done.
void hideTargetLikeSource(const files::HeldDirectory& source, const files::HeldDirectory& target);

}  // namespace host
