#pragma once

#include <string>
#include <string_view>

#include "manifest/metadata.h"

namespace host {

/// One record of the manifest, with its line end.
[[nodiscard]] std::string encodeRecord(const Metadata& metadata);

/// The other way, without the line end. False for what is not all of a record and nothing else:
/// each field once, in its place and in its range.
[[nodiscard]] bool decodeRecord(std::string_view line, Metadata* metadata);

}  // namespace host
