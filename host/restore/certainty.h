#pragma once

#include <sys/stat.h>

#include "manifest/metadata.h"

namespace host {

/// Whether the file that is open for reading is for certain the one that the manifest describes, so
/// that it may get the rights which that one lends: it belongs to whom a moved file belongs,
/// nobody else may write it, nobody has it open for writing, and its bytes are the same. While the
/// tree was moved its owner could have put another in its place. Nobody can open it for writing
/// without this process being told until it is closed, or for as long as the system allows. Throws
/// std::system_error.
[[nodiscard]] bool isCertain(const Metadata& metadata, const struct stat& found, int file);

}  // namespace host
