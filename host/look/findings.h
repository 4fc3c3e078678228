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
    kLinkNotTaken,
    kAttribute,
    // From here on: told, no reason to refuse.
    kAttributeDropped,
    kSpecialFile,
    kHardLink,
    kHoles,
    kOwnName,
    kMaybeNoSpace,
};

[[nodiscard]] bool isRefusal(Finding finding);

struct Preflight {
    uint64_t files = 0;
    uint64_t bytes = 0;
    uint64_t largest = 0;
    uint64_t links = 0;                                    ///< symbolic ones
    std::map<Finding, std::vector<std::string>> findings;  ///< full paths
    std::map<Finding, uint64_t> added;                     ///< bytes that moving these takes more
    std::map<std::string, std::string> attributes;         ///< by path, what is not taken of it

    [[nodiscard]] bool refused() const;
    [[nodiscard]] uint64_t addedBytes() const;
    /// Takes over what `other` has found.
    void merge(Preflight other);
};

}  // namespace host
