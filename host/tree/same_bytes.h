#pragma once

#include <string>

#include "files/held_directory.h"

namespace host {

/// Whether both are regular files of the same contents. Throws std::system_error when one cannot
/// be read.
[[nodiscard]] bool sameBytes(const files::HeldDirectory& left, const std::string& leftName,
                             const files::HeldDirectory& right, const std::string& rightName);

}  // namespace host
