#pragma once

#include <functional>

#include "files/held_directory.h"
#include "manifest/manifest.h"
#include "restore/restored.h"

namespace host {

/// Moves the symbolic links that the manifest names, when all files are there: a link is called
/// like the copy of a file on its way if that is .N and the file N. Each is made in the target,
/// from what the manifest says; when all of them last, those in the source are removed that lead
/// where they did. So it can be stopped anywhere and be done again. What stands in a link's place
/// in the target stays, and so does the link in the source. `between` is called for each record and
/// may throw. Throws std::system_error.
void moveLinks(Manifest& manifest, const files::HeldDirectory& source,
               const files::HeldDirectory& target, const std::function<void()>& between,
               Restored& restored);

}  // namespace host
