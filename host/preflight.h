#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tree.h"

namespace host {

/// What a look at a tree can find, refusals first.
enum class Finding {
    kTargetMissing,
    kTargetPlain,
    kSourceMissing,
    kDirectoryUnusable,
    kNoEntryTypes,
    kNewline,
    kNameTooLong,
    kPathTooLong,
    kReservedName,
    kDottedDirectory,
    kDottedOnTarget,
    kSameNameOnTarget,
    kOtherKindOnTarget,
    kUnfitName,
    kUnreadable,
    kOwner,
    kForeignList,
    kNoSpace,
    // From here on: told, no reason to refuse.
    kSymbolicLink,
    kSpecialFile,
    kHardLink,
    kOwnName,
    kMaybeNoSpace,
};

[[nodiscard]] bool isRefusal(Finding finding);

struct FindingText {
    std::string_view code;    ///< for programs
    std::string_view reason;  ///< for people, behind the name of the file
};

[[nodiscard]] FindingText describe(Finding finding);

struct PreflightOptions {
    bool allowPlain = false;  ///< a target that is no eCryptfs mount is all right
    bool replace = false;     ///< files of the same name in the target are all right
};

struct Preflight {
    uint64_t files = 0;
    uint64_t bytes = 0;
    uint64_t largest = 0;
    std::map<Finding, std::vector<std::string>> findings;  ///< full paths

    [[nodiscard]] bool refused() const;
};

/// Looks at both trees and changes nothing. `betweenDirectories` may throw.
[[nodiscard]] Preflight inspect(const Tree& tree, Direction direction,
                                const PreflightOptions& options,
                                const std::function<void()>& betweenDirectories);

}  // namespace host
