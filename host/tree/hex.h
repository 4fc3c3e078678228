#pragma once

#include <string>
#include <string_view>

namespace host {

/// Two hexadecimal digits for each byte.
[[nodiscard]] std::string inHex(std::string_view bytes);

/// The other way. False for anything else.
[[nodiscard]] bool fromHex(std::string_view digits, std::string* bytes);

}  // namespace host
