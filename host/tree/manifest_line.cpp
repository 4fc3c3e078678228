#include "tree/manifest_line.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include <android-base/strings.h>
#include <fmt/format.h>

#include "tree/hex.h"

namespace host {
namespace {

bool isPlain(char byte) {
    return static_cast<unsigned char>(byte) > ' ' && byte != '%' && byte != 0x7f;
}

std::string escape(std::string_view text) {
    std::string result;
    for (const char byte : text) {
        if (isPlain(byte)) {
            result += byte;
        } else {
            result += fmt::format("%{:02x}", static_cast<unsigned char>(byte));
        }
    }
    return result;
}

std::string unescape(std::string_view text) {
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            result += text[i];
            continue;
        }
        const std::string digits(text.substr(i + 1, 2));
        result += static_cast<char>(std::strtoul(digits.c_str(), nullptr, 16));
        i += digits.size();
    }
    return result;
}

timespec parseTime(const std::string& text) {
    const size_t point = std::min(text.find('.'), text.size() - 1);
    return {.tv_sec = std::strtol(text.c_str(), nullptr, 10),
            .tv_nsec = std::strtol(text.c_str() + point + 1, nullptr, 10)};
}

std::string time(const char* key, const timespec& value) {
    return fmt::format(" {}={}.{:09}", key, value.tv_sec, value.tv_nsec);
}

/// NAME:HEX, where the name may hold a colon too.
void takeAttribute(const std::string& value, Metadata* metadata) {
    const size_t colon = std::min(value.rfind(':'), value.size());
    const size_t digits = std::min(colon + 1, value.size());
    metadata->attributes[unescape(value.substr(0, colon))] = fromHex(value.substr(digits));
}

/// What is wrong here shows when the record is written again.
void takeField(std::string_view key, const std::string& value, Metadata* metadata) {
    const auto number = [&value](int base) { return std::strtoull(value.c_str(), nullptr, base); };
    if (key == "mode") metadata->mode = static_cast<mode_t>(number(8));
    if (key == "uid") metadata->uid = static_cast<uid_t>(number(10));
    if (key == "gid") metadata->gid = static_cast<gid_t>(number(10));
    if (key == "mtime" && !value.empty()) metadata->modified = parseTime(value);
    if (key == "atime" && !value.empty()) metadata->accessed = parseTime(value);
    if (key == "size") metadata->size = number(10);
    if (key == "sum") metadata->sum = value;
    if (key == "target") metadata->text = unescape(value);
    if (key == "attr") takeAttribute(value, metadata);
    if (key == "name") metadata->relative = unescape(value);
}

}  // namespace

std::string encodeRecord(const Metadata& metadata) {
    std::string line(metadata.directory ? "d" : metadata.link ? "l" : "f");
    if (!metadata.link) line += fmt::format(" mode={:o}", metadata.mode);
    line += fmt::format(" uid={} gid={}", metadata.uid, metadata.gid);
    line += time("mtime", metadata.modified) + time("atime", metadata.accessed);
    if (metadata.link) {
        line += " target=" + escape(metadata.text);
    } else if (!metadata.directory) {
        line += fmt::format(" size={}", metadata.size);
    }
    if (!metadata.sum.empty()) line += " sum=" + metadata.sum;
    for (const auto& [name, value] : metadata.attributes) {
        line += " attr=" + escape(name) + ":" + inHex(value);
    }
    return line + " name=" + escape(metadata.relative) + "\n";
}

bool decodeRecord(std::string_view line, Metadata* metadata) {
    const std::vector<std::string> fields = android::base::Split(std::string(line), " ");
    *metadata = {};
    metadata->directory = fields.front() == "d";
    metadata->link = fields.front() == "l";
    for (const std::string& field : fields) {
        const size_t equals = std::min(field.find('='), field.size());
        const size_t value = std::min(equals + 1, field.size());
        takeField(field.substr(0, equals), field.substr(value), metadata);
    }
    // Every field once, in its place and in its range, or this is not a line that was written.
    return encodeRecord(*metadata) == std::string(line) + "\n";
}

}  // namespace host
