#include "manifest/attributes.h"

#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include <fmt/compile.h>
#include <fmt/format.h>

#include "end/throw_errno.h"

using files::HeldDirectory;

namespace host {
namespace {

constexpr std::array<std::string_view, 3> kPrefixes = {"user.", "trusted.", "security."};
/// Where eCryptfs can be told to keep the key of a file: given to another, that is lost.
constexpr std::string_view kOfEcryptfs = "user.ecryptfs";

bool isCarried(std::string_view name) {
    if (name == kAccessList || name == kDefaultList) return true;
    return name != kOfEcryptfs &&
           std::any_of(kPrefixes.begin(), kPrefixes.end(),
                       [name](std::string_view prefix) { return name.starts_with(prefix); });
}

bool isPermission(std::string_view name) {
    return name == kAccessList || name == kDefaultList || name == kCapability;
}

/// The names in a list as the kernel gives it, each with a zero behind it.
std::vector<std::string> carriedNames(std::string_view list) {
    std::vector<std::string> names;
    while (!list.empty()) {
        const size_t end = std::min(list.find('\0'), list.size());
        if (isCarried(list.substr(0, end))) names.emplace_back(list.substr(0, end));
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    return names;
}

/// What `read(buffer, size)` gives, which says ERANGE when it has grown since its size was asked.
/// False with errno.
template <typename Read>
bool readGrowing(const Read& read, std::string* bytes) {
    for (size_t size = 256;;) {
        bytes->resize(size);
        const ssize_t length = read(bytes->data(), size);
        if (length >= 0) {
            bytes->resize(static_cast<size_t>(length));
            return true;
        }
        if (errno != ERANGE || size > XATTR_LIST_MAX) return false;
        size *= 16;
    }
}

}  // namespace

bool hasAttributes(const HeldDirectory& directory, const std::string& name) {
    // There is no such call for a directory and a name. The kernel's link leads to the very
    // directory that is held, wherever it is by now, and the last name is not followed.
    const std::string path =
        fmt::format(FMT_COMPILE("/proc/self/fd/{}/{}"), directory.descriptor(), name);
    std::string list;
    const auto read = [&](char* bytes, size_t size) {
        return llistxattr(path.c_str(), bytes, size);
    };
    if (readGrowing(read, &list)) return !carriedNames(list).empty();
    if (errno == EOPNOTSUPP) return false;
    throwErrno("cannot read the attributes of " + directory.pathOf(name));
}

Attributes readAttributes(int descriptor, int* error) {
    Attributes attributes;
    std::string list;
    *error = 0;
    const auto read = [&](char* bytes, size_t size) { return flistxattr(descriptor, bytes, size); };
    if (!readGrowing(read, &list)) {
        if (errno != EOPNOTSUPP) *error = errno;
        return attributes;
    }
    for (const std::string& name : carriedNames(list)) {
        std::string value;
        const auto readValue = [&](char* bytes, size_t size) {
            return fgetxattr(descriptor, name.c_str(), bytes, size);
        };
        if (readGrowing(readValue, &value)) {
            attributes.emplace(name, std::move(value));
        } else if (errno != ENODATA) {  // taken off meanwhile
            *error = errno;
        }
    }
    return attributes;
}

Attributes readAttributes(int descriptor, const std::string& path) {
    int error = 0;
    Attributes attributes = readAttributes(descriptor, &error);
    throwIfError(-error, "cannot read the attributes of " + path);
    return attributes;
}

std::vector<RefusedAttribute> putAttributes(const Attributes& wanted, const Attributes& found,
                                            int descriptor) {
    std::vector<RefusedAttribute> refused;
    for (const auto& [name, value] : wanted) {
        const auto there = found.find(name);
        if (there != found.end() && there->second == value && !isPermission(name)) continue;
        if (fsetxattr(descriptor, name.c_str(), value.data(), value.size(), 0) != 0) {
            refused.emplace_back(name, errno);
        }
    }
    return refused;
}

bool areAsWanted(const Attributes& wanted, const Attributes& found) {
    const auto isIn = [](const Attributes& set, const auto& attribute) {
        const auto there = set.find(attribute.first);
        return there != set.end() && there->second == attribute.second;
    };
    return std::all_of(wanted.begin(), wanted.end(),
                       [&](const auto& attribute) { return isIn(found, attribute); }) &&
           std::all_of(found.begin(), found.end(), [&](const auto& attribute) {
               return !isPermission(attribute.first) || isIn(wanted, attribute);
           });
}

std::vector<RefusedAttribute> takeOffLists(const Attributes& wanted, const Attributes& found,
                                           int descriptor) {
    std::vector<RefusedAttribute> refused;
    for (const char* const name : {kAccessList, kDefaultList}) {
        const auto there = found.find(name);
        const auto asked = wanted.find(name);
        if (there == found.end() || (asked != wanted.end() && asked->second == there->second)) {
            continue;
        }
        if (fremovexattr(descriptor, name) != 0 && errno != ENODATA) {
            refused.emplace_back(name, errno);
        }
    }
    return refused;
}

mode_t modeWithoutList(mode_t mode, const std::string& accessList) {
    // A version of 4 bytes; then for each entry what it is for, what it allows, and whom.
    constexpr size_t kHeader = 4;
    constexpr size_t kEntry = 8;
    constexpr uint16_t kOwningGroup = 0x04;
    mode_t group = 0;
    for (size_t at = kHeader; at + kEntry <= accessList.size(); at += kEntry) {
        std::array<uint16_t, 2> entry{};  // little-endian, as are the machines
        std::memcpy(entry.data(), accessList.data() + at, sizeof entry);
        if (entry[0] == kOwningGroup) group = mode_t{entry[1]} << 3U;
    }
    return (mode & ~mode_t{S_IRWXG}) | (mode & group & S_IRWXG);
}

}  // namespace host
