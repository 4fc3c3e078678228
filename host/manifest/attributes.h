#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "files/held_directory.h"

namespace host {

/// The extended attributes that are carried over, name to value: those of users, of trusted
/// programs, of security modules (the capabilities of a program among them), and the access control
/// lists. Not what the file system itself keeps there.
using Attributes = std::map<std::string, std::string, std::less<>>;

inline constexpr const char* kAccessList = "system.posix_acl_access";
inline constexpr const char* kDefaultList = "system.posix_acl_default";  ///< of directories
inline constexpr const char* kCapability = "security.capability";

/// Whether what stands at `name` has any, in one call and without opening it; a link is not
/// followed. Throws std::system_error.
[[nodiscard]] bool hasAttributes(const files::HeldDirectory& directory, const std::string& name);

/// Those of the open file or directory; `path` is for the message. Throws std::system_error.
[[nodiscard]] Attributes readAttributes(int descriptor, const std::string& path);

/// The same, with the errno in `error` (0 for none) in place of an exception.
[[nodiscard]] Attributes readAttributes(int descriptor, int* error);

/// One that was refused, with the errno.
using RefusedAttribute = std::pair<std::string, int>;

/// Sets each that is `wanted` and not `found` so already, lists and capabilities in any case: a
/// change of owner or mode has changed those.
[[nodiscard]] std::vector<RefusedAttribute> putAttributes(const Attributes& wanted,
                                                          const Attributes& found, int descriptor);

/// Whether all that is wanted is found, and no access control list that is not wanted.
[[nodiscard]] bool areAsWanted(const Attributes& wanted, const Attributes& found);

/// Takes off the access control lists that are not wanted. They are permissions, which a file has
/// from the directory that it was made in, and a change of mode would put them in force: so this
/// comes before it.
[[nodiscard]] std::vector<RefusedAttribute> takeOffLists(const Attributes& wanted,
                                                         const Attributes& found, int descriptor);

/// `mode` of a file whose access list this is, as it is without the list: there the bits of the
/// group are the most that anybody on the list may do, and may be more than the group itself may.
[[nodiscard]] mode_t modeWithoutList(mode_t mode, const std::string& accessList);

}  // namespace host
