#include "say/text.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>

namespace host {
namespace {

unsigned char byteAt(std::string_view text, size_t index) {
    return index < text.size() ? static_cast<unsigned char>(text[index]) : 0;
}

/// 0 for what is no UTF-8: also longer forms than needed, surrogates, and what is past U+10FFFF.
size_t utf8Length(std::string_view text) {
    const unsigned char first = byteAt(text, 0);
    if (first < 0x80) return text.empty() ? 0 : 1;
    const size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    uint32_t code = first & (0x7fU >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((byteAt(text, i) & 0xc0U) != 0x80) return 0;
        code = code << 6U | (byteAt(text, i) & 0x3fU);
    }
    constexpr std::array<uint32_t, 5> kSmallest = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = code >= 0xd800 && code < 0xe000;
    const bool valid = first >= 0xc0 && first < 0xf8 && code >= kSmallest.at(length) &&
                       code <= 0x10ffff && !surrogate;
    return valid ? length : 0;
}

bool isPlainInShell(char byte) {
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
           (byte >= '0' && byte <= '9') || std::string_view("/._-+,:@%=").find(byte) != -1UL;
}

bool canBeShown(std::string_view text) {
    while (!text.empty()) {
        const size_t length = characterLength(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

}  // namespace

size_t characterLength(std::string_view text) {
    const size_t length = utf8Length(text);
    const unsigned char last = byteAt(text, length == 0 ? 0 : length - 1);
    if (length == 1 && (last < 0x20 || last == 0x7f)) return 0;
    // U+0080 to U+009F, which some terminals obey.
    return length == 2 && byteAt(text, 0) == 0xc2 && last < 0xa0 ? 0 : length;
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const size_t length = utf8Length(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string shellWord(const std::string& word) {
    if (!word.empty() && std::all_of(word.begin(), word.end(), isPlainInShell)) return word;
    const bool shown = canBeShown(word);
    std::string quoted = shown ? "'" : "$'";
    for (std::string_view rest = word; !rest.empty();) {
        const size_t length = std::max<size_t>(1, characterLength(rest));
        if (characterLength(rest) == 0) {
            quoted += fmt::format("\\{:03o}", byteAt(rest, 0));
        } else if (rest.front() == '\'') {
            quoted += shown ? "'\\''" : "\\'";
        } else {
            if (!shown && rest.front() == '\\') quoted += '\\';
            quoted += rest.substr(0, length);
        }
        rest.remove_prefix(length);
    }
    return quoted + "'";
}

std::string counted(uint64_t number, const std::string& noun) {
    return fmt::format("{} {}{}", number, noun, number == 1 ? "" : "s");
}

}  // namespace host
