#include "tree/manifest_line.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include <android-base/strings.h>
#include <fmt/format.h>

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

/// What is wrong here shows when the record is written again.
void takeField(std::string_view key, const std::string& value, Metadata* metadata) {
    const auto number = [&value](int base) { return std::strtoull(value.c_str(), nullptr, base); };
    if (key == "mode") metadata->mode = static_cast<mode_t>(number(8));
    if (key == "uid") metadata->uid = static_cast<uid_t>(number(10));
    if (key == "gid") metadata->gid = static_cast<gid_t>(number(10));
    if (key == "mtime" && !value.empty()) metadata->modified = parseTime(value);
    if (key == "size") metadata->size = number(10);
    if (key == "name") metadata->relative = unescape(value);
}

}  // namespace

std::string encodeRecord(const Metadata& metadata) {
    const std::string size = metadata.directory ? "" : fmt::format(" size={}", metadata.size);
    return fmt::format("{} mode={:o} uid={} gid={} mtime={}.{:09}{} name={}\n",
                       metadata.directory ? 'd' : 'f', metadata.mode, metadata.uid, metadata.gid,
                       metadata.modified.tv_sec, metadata.modified.tv_nsec, size,
                       escape(metadata.relative));
}

bool decodeRecord(std::string_view line, Metadata* metadata) {
    const std::vector<std::string> fields = android::base::Split(std::string(line), " ");
    *metadata = {};
    metadata->directory = fields.front() == "d";
    for (const std::string& field : fields) {
        const size_t equals = std::min(field.find('='), field.size());
        const size_t value = std::min(equals + 1, field.size());
        takeField(field.substr(0, equals), field.substr(value), metadata);
    }
    // Every field once, in its place and in its range, or this is not a line that was written.
    return encodeRecord(*metadata) == std::string(line) + "\n";
}

}  // namespace host
