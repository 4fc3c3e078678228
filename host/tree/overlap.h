#pragma once

#include <functional>
#include <string>

#include "files/held_directory.h"

namespace host {

/// Whether both are open and one directory, by whatever paths: links, mounts.
[[nodiscard]] bool isSame(const files::HeldDirectory& left, const files::HeldDirectory& right);

/// Calls `each` for every directory above this one that can be opened, nearest first, up to the
/// root of the file systems. Links in the path of `directory` are resolved.
void visitAbove(const files::HeldDirectory& directory,
                const std::function<void(const files::HeldDirectory&)>& each);

enum class Overlap { kNone, kSame, kEncryptedInside, kPlainInside };

/// How the roots of a pair lie to each other. A part of one that is mounted inside the other is not
/// seen here.
[[nodiscard]] Overlap overlapOf(const files::HeldDirectory& plain,
                                const files::HeldDirectory& encrypted);

}  // namespace host
