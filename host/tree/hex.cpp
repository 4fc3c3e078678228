#include "tree/hex.h"

#include <cstdlib>

#include <fmt/format.h>

namespace host {

std::string inHex(std::string_view bytes) {
    std::string digits;
    for (const char byte : bytes) digits += fmt::format("{:02x}", static_cast<unsigned char>(byte));
    return digits;
}

std::string fromHex(std::string_view digits) {
    std::string bytes;
    for (size_t i = 0; i < digits.size(); i += 2) {
        const std::string pair(digits.substr(i, 2));
        bytes += static_cast<char>(std::strtoul(pair.c_str(), nullptr, 16));
    }
    return bytes;
}

}  // namespace host
