#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

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
    kUnfinishedInside,
    kUnfinishedAbove,
    kInBothTrees,
    kNoSpace,
    // From here on: told, no reason to refuse.
    kSymbolicLink,
    kSpecialFile,
    kHardLink,
    kOwnName,
    kMaybeNoSpace,
};

[[nodiscard]] bool isRefusal(Finding finding);

struct Preflight {
    uint64_t files = 0;
    uint64_t bytes = 0;
    uint64_t largest = 0;
    std::map<Finding, std::vector<std::string>> findings;  ///< full paths

    [[nodiscard]] bool refused() const;
};

}  // namespace host
