#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace host {

/// The length in bytes of the UTF-8 character that `text` begins with; 0 when it begins with none,
/// or with a control character.
[[nodiscard]] size_t characterLength(std::string_view text);

/// Whether all of it is UTF-8, control characters included.
[[nodiscard]] bool isUtf8(std::string_view text);

/// One word of a shell's command line, quoted where it must be. Bytes that a terminal would not
/// show are written as `$'\012'`.
[[nodiscard]] std::string shellWord(const std::string& word);

/// "1 file", "2 files".
[[nodiscard]] std::string counted(uint64_t number, const std::string& noun);

}  // namespace host
