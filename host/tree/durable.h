#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "files/held_directory.h"

namespace host {

/// Replaces the file as one step that survives a power cut; throws std::system_error.
void replaceDurably(const files::HeldDirectory& directory, std::string_view name,
                    std::string_view bytes);
/// Removes the file, and what an interrupted replacement left, and makes that last; throws
/// std::system_error.
void removeDurably(const files::HeldDirectory& directory, std::string_view name);
/// Throws std::system_error.
void syncDirectory(const files::HeldDirectory& directory);

/// The same for what an earlier run left there; see files::HeldDirectory::syncFound().
void syncFound(const files::HeldDirectory& directory);

/// The whole file, or nothing when there is none. Throws std::system_error.
[[nodiscard]] std::optional<std::string> readIfThere(const files::HeldDirectory& directory,
                                                     std::string_view name);

}  // namespace host
