#pragma once

#include <string>
#include <string_view>

#include "tree/metadata.h"

namespace host {

/// One record of the manifest, with its line end.
[[nodiscard]] std::string encodeRecord(const Metadata& metadata);

/// The other way, without the line end. False for what encodeRecord() would not have written.
[[nodiscard]] bool decodeRecord(std::string_view line, Metadata* metadata);

}  // namespace host
