#pragma once

#include <string>
#include <vector>

namespace host {

/// Those of `names` that `directory` takes for one that came before them. A file system that does
/// not tell upper from lower case has such names, and files moved there would replace each other.
/// Tried in a folder below `directory`, which is gone afterwards. Throws std::system_error, also
/// for a name that the file system does not take at all.
[[nodiscard]] std::vector<std::string> clashingNames(const std::string& directory,
                                                     const std::vector<std::string>& names);

}  // namespace host
