#pragma once

#include <sys/stat.h>

#include <string>

#include "files/held_directory.h"
#include "manifest/metadata.h"

namespace host {

/// What a manifest says of the open directory, which is `relative` to the root of its tree. Throws
/// std::system_error.
[[nodiscard]] Metadata describeDirectory(const files::HeldDirectory& directory,
                                         const std::string& relative);

/// The same of what stands under `name` in the directory that `above` describes, and which must be
/// a regular file, of which `status` is known, or a symbolic link. Throws JobEnd (failed) where it
/// is no link any more.
[[nodiscard]] Metadata describeFile(const files::HeldDirectory& directory, const Metadata& above,
                                    const std::string& name, const struct stat& status);
[[nodiscard]] Metadata describeLink(const files::HeldDirectory& directory, const Metadata& above,
                                    const std::string& name);

}  // namespace host
