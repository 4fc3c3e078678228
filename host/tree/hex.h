#pragma once

#include <string>
#include <string_view>

namespace host {

/// Two hexadecimal digits for each byte.
[[nodiscard]] std::string inHex(std::string_view bytes);

/// The other way; what comes of anything else is some text, of which inHex() makes another.
[[nodiscard]] std::string fromHex(std::string_view digits);

}  // namespace host
