#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "look/findings.h"

namespace host {

/// Why no file of this name can be moved into the directory at `target`, whose file system takes
/// names of `longest` bytes.
[[nodiscard]] std::vector<Finding> faultsOfName(const std::string& name, const std::string& target,
                                                size_t longest);

}  // namespace host
