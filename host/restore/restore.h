#pragma once

#include <functional>

#include "files/held_directory.h"
#include "manifest/manifest.h"
#include "restore/restored.h"

namespace host {

/// Puts back what the manifest says of directories and files, as far as it can be, and adds to
/// `restored` what came of it. `between` is called for each record and may throw. Throws
/// std::system_error when the manifest cannot be read.
void restoreMetadata(Manifest& manifest, const files::HeldDirectory& source,
                     const files::HeldDirectory& target, const std::function<void()>& between,
                     Restored& restored);

/// Looks what is still to be put back, or could not be, links included, and changes nothing:
/// `refused` names what is not as the manifest says.
[[nodiscard]] Restored compareMetadata(Manifest& manifest, const files::HeldDirectory& source,
                                       const files::HeldDirectory& target);

}  // namespace host
