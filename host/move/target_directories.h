#pragma once

#include <functional>

#include "files/held_directory.h"
#include "manifest/manifest.h"
#include "tree/descent.h"
#include "tree/walk.h"

namespace host {

/// Makes the twin of a source directory if it is missing, with the source's mode and owner, and
/// syncs it: a file must not arrive in a directory that a power cut can take away. The one above it
/// is there; a root stays as it is. Throws std::system_error.
void makeTargetDirectory(const Visit& source, Descent& target);

/// The same for every directory of the source.
void makeTargetDirectories(const files::HeldDirectory& source, const files::HeldDirectory& target,
                           const std::function<void()>& betweenDirectories);

/// The same from the manifest: the directories of a source to which files go back.
void makeDirectoriesAgain(Manifest& manifest, const files::HeldDirectory& target,
                          const std::function<void()>& betweenDirectories);

/// What a root hid stays hidden: gives the target's root the owner and mode of the source's, before
/// the first file arrives. Throws JobEnd (refused) where that cannot be done.
void hideTargetLikeSource(const files::HeldDirectory& source, const files::HeldDirectory& target);

}  // namespace host
