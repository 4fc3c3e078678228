#include "manifest/manifest_line.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>
#include <utility>

#include <fmt/compile.h>
#include <fmt/format.h>

#include "tree/hex.h"

namespace host {
namespace {

bool isPlain(char byte) {
    return static_cast<unsigned char>(byte) > ' ' && byte != '%' && byte != 0x7f;
}

void appendEscaped(std::string_view text, fmt::memory_buffer& line) {
    while (!text.empty()) {
        const auto* const special = std::find_if_not(text.begin(), text.end(), isPlain);
        const auto plain = static_cast<size_t>(special - text.begin());
        line.append(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty()) return;
        line.push_back('%');
        line.append(inHex(text.substr(0, 1)));
        text.remove_prefix(1);
    }
}

bool unescape(std::string_view text, std::string* result) {
    while (true) {
        const size_t plain = std::min(text.find('%'), text.size());
        result->append(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty()) return true;
        std::string byte;
        if (text.size() < 3 || !fromHex(text.substr(1, 2), &byte)) return false;
        *result += byte;
        text.remove_prefix(3);
    }
}

/// All of the text, in the range of the number.
template <typename Number>
bool parse(std::string_view text, Number* number, int base = 10) {
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), *number, base);
    return error == std::errc() && end == text.data() + text.size();
}

bool parseTime(std::string_view text, timespec* time) {
    constexpr size_t kDigits = 9;
    const size_t point = text.find('.');
    return point != std::string_view::npos && parse(text.substr(0, point), &time->tv_sec) &&
           text.size() == point + 1 + kDigits && parse(text.substr(point + 1), &time->tv_nsec) &&
           time->tv_nsec >= 0;
}

/// NAME:HEX, where the name may hold a colon too.
bool parseAttribute(std::string_view text, Attributes* attributes) {
    const size_t colon = text.rfind(':');
    std::string name;
    std::string value;
    return colon != std::string_view::npos && unescape(text.substr(0, colon), &name) &&
           fromHex(text.substr(colon + 1), &value) &&
           attributes->emplace(std::move(name), std::move(value)).second;
}

/// Takes a line apart, from the front.
class Fields {
  public:
    explicit Fields(std::string_view line) : rest_(line) {}

    [[nodiscard]] bool ended() const { return rest_.empty(); }

    /// The value of the next field. Where that has another key, it stays.
    std::optional<std::string_view> take(std::string_view key) {
        if (!rest_.starts_with(key)) return std::nullopt;
        const size_t end = std::min(rest_.find(' ', key.size()), rest_.size());
        const std::string_view value = rest_.substr(key.size(), end - key.size());
        rest_.remove_prefix(end);
        return value;
    }

    template <typename Number>
    bool takeNumber(std::string_view key, Number* number, int base = 10) {
        const auto value = take(key);
        return value && parse(*value, number, base);
    }

    bool takeTime(std::string_view key, timespec* time) {
        const auto value = take(key);
        return value && parseTime(*value, time);
    }

    bool takeText(std::string_view key, std::string* text) {
        const auto value = take(key);
        return value && unescape(*value, text);
    }

  private:
    std::string_view rest_;
};

}  // namespace

// Compiled formats: a tree may have millions of lines.
std::string encodeRecord(const Metadata& metadata) {
    fmt::memory_buffer line;
    const auto end = std::back_inserter(line);
    line.push_back(metadata.directory ? 'd' : metadata.link ? 'l' : 'f');
    if (!metadata.link) fmt::format_to(end, FMT_COMPILE(" mode={:o}"), metadata.mode);
    fmt::format_to(end, FMT_COMPILE(" uid={} gid={} mtime={}.{:09} atime={}.{:09}"), metadata.uid,
                   metadata.gid, metadata.modified.tv_sec, metadata.modified.tv_nsec,
                   metadata.accessed.tv_sec, metadata.accessed.tv_nsec);
    if (metadata.link) {
        fmt::format_to(end, FMT_COMPILE(" target="));
        appendEscaped(metadata.text, line);
    } else if (!metadata.directory) {
        fmt::format_to(end, FMT_COMPILE(" size={}"), metadata.size);
    }
    if (!metadata.sum.empty()) fmt::format_to(end, FMT_COMPILE(" sum={}"), metadata.sum);
    for (const auto& [name, value] : metadata.attributes) {
        fmt::format_to(end, FMT_COMPILE(" attr="));
        appendEscaped(name, line);
        fmt::format_to(end, FMT_COMPILE(":{}"), inHex(value));
    }
    fmt::format_to(end, FMT_COMPILE(" name="));
    appendEscaped(metadata.relative, line);
    line.push_back('\n');
    return fmt::to_string(line);
}

bool decodeRecord(std::string_view line, Metadata* metadata) {
    *metadata = {};
    metadata->directory = line.starts_with('d');
    metadata->link = line.starts_with('l');
    if (!metadata->directory && !metadata->link && !line.starts_with('f')) return false;
    Fields fields(line.substr(1));
    if (!metadata->link && !fields.takeNumber(" mode=", &metadata->mode, 8)) return false;
    if (!fields.takeNumber(" uid=", &metadata->uid) ||
        !fields.takeNumber(" gid=", &metadata->gid) ||
        !fields.takeTime(" mtime=", &metadata->modified) ||
        !fields.takeTime(" atime=", &metadata->accessed)) {
        return false;
    }
    if (metadata->link) {
        if (!fields.takeText(" target=", &metadata->text)) return false;
    } else if (!metadata->directory) {
        if (!fields.takeNumber(" size=", &metadata->size)) return false;
    }
    metadata->sum = fields.take(" sum=").value_or("");
    while (const auto attribute = fields.take(" attr=")) {
        if (!parseAttribute(*attribute, &metadata->attributes)) return false;
    }
    return fields.takeText(" name=", &metadata->relative) && fields.ended();
}

}  // namespace host
