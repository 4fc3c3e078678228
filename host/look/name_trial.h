#pragma once

#include <string>
#include <vector>

#include "files/held_directory.h"
#include "tree/walk.h"

namespace host {

/// Those of one source directory's `entries` that cannot be moved into `directory` beside the
/// others, because its file system does not tell upper from lower case: it takes their name, or the
/// dotted name that a file has on its way, for that of another, and one file would replace the
/// other. Such a file system may also refuse a name altogether. Tried in a folder below
/// `directory`, which is gone afterwards. Throws std::system_error.
[[nodiscard]] std::vector<std::string> unfitNames(const files::HeldDirectory& directory,
                                                  const std::vector<Entry>& entries);

}  // namespace host
