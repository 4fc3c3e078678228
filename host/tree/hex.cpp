#include "tree/hex.h"

#include <charconv>
#include <system_error>

#include <fmt/format.h>

namespace host {

std::string inHex(std::string_view bytes) {
    std::string digits;
    for (const char byte : bytes) digits += fmt::format("{:02x}", static_cast<unsigned char>(byte));
    return digits;
}

bool fromHex(std::string_view digits, std::string* bytes) {
    bytes->clear();
    for (; digits.size() >= 2; digits.remove_prefix(2)) {
        unsigned char byte = 0;
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + 2, byte, 16);
        if (error != std::errc() || end != digits.data() + 2) return false;
        *bytes += static_cast<char>(byte);
    }
    return digits.empty();
}

}  // namespace host
