#include "say/finding_texts.h"

#include <algorithm>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "say/progress.h"

namespace host {
namespace {

constexpr size_t kNamesPerFinding = 10;

struct FindingText {
    std::string_view code;    ///< for programs
    std::string_view reason;  ///< for people, behind the name of the file
};

FindingText describe(Finding finding) {
    switch (finding) {
        case Finding::kTargetMissing:
            return {"target-missing",
                    "is missing: create it and mount the eCryptfs directory there"};
        case Finding::kTargetPlain:
            return {"target-plain",
                    "is not on an eCryptfs mount, nothing would be encrypted (--allow-plain if "
                    "that is what you want)"};
        case Finding::kSourceMissing:
            return {"source-missing", "is missing"};
        case Finding::kDirectoryUnusable:
            return {"directory-unusable", "is a directory that you cannot list and write"};
        case Finding::kNoEntryTypes:
            return {"no-entry-types",
                    "is on a file system that reports no entry types; its files would not be seen"};
        case Finding::kNewline:
            return {"newline",
                    "has a line feed in its name, which the lists of the move cannot hold"};
        case Finding::kNameTooLong:
            return {
                "name-too-long",
                "has a name too long for the target, where a file needs 23 bytes more on its way"};
        case Finding::kPathTooLong:
            return {"path-too-long", "has a path too long for the target"};
        case Finding::kReservedName:
            return {"reserved-name",
                    "has a name that becomes one of the mover's own with a dot in front"};
        case Finding::kDottedDirectory:
            return {"dotted-directory",
                    "stands beside a directory called the same with a dot in front, the name the "
                    "file needs on its way"};
        case Finding::kDottedOnTarget:
            return {"dotted-on-target",
                    "needs its name with a dot in front on its way, and the target has something "
                    "called that"};
        case Finding::kSameNameOnTarget:
            return {"on-target", "is already in the target (--replace overwrites it)"};
        case Finding::kOtherKindOnTarget:
            return {"other-kind-on-target",
                    "is in the way in the target: a file where a directory belongs, the other way "
                    "round, or anything but the same link where a link belongs"};
        case Finding::kUnfitName:
            return {"unfit-name",
                    "has a name that the target refuses, or does not tell from another beside it, "
                    "in upper or lower case, with or without a dot in front"};
        case Finding::kUnreadable:
            return {"unreadable", "cannot be read"};
        case Finding::kOwner:
            return {"owner", "belongs to a user or group that only root could give it back to"};
        case Finding::kForeignList:
            return {"unfinished-move",
                    "belongs to an unfinished move that vaultctl did not begin in this direction: "
                    "finish that first"};
        case Finding::kUnfinishedInside:
            return {"unfinished-inside",
                    "has a move of its own that is not finished: finish that first"};
        case Finding::kUnfinishedAbove:
            return {"unfinished-above",
                    "lies above and has a move that is not finished: finish that first"};
        case Finding::kInBothTrees:
            return {"in-both-trees", "is a part of both trees, by a mount"};
        case Finding::kNoSpace:
            return {"no-space", "has no room for the largest file and 5 MiB beside it"};
        case Finding::kLinkNotTaken:
            return {"link-not-taken", "is a symbolic link that the target does not take"};
        case Finding::kAttribute:
            return {"attribute",
                    "has attributes that the target does not take (--drop-attributes leaves them "
                    "behind)"};
        case Finding::kAttributeDropped:
            return {"attribute-dropped", "loses attributes, which the target does not take"};
        case Finding::kSpecialFile:
            return {"special-file", "is a special file and stays behind"};
        case Finding::kHardLink:
            return {"hard-link", "has more than one hard link and becomes a separate copy"};
        case Finding::kHoles:
            return {"holes", "has holes, which are filled"};
        case Finding::kOwnName:
            return {"own-name", "has one of the mover's own names and stays behind"};
        case Finding::kMaybeNoSpace:
            return {"space-tight",
                    "has less free space than the files need; a move that fills it stops and can "
                    "be carried on"};
    }
    return {};
}

/// Which attributes, where it is about them.
std::string detailOf(const Preflight& preflight, const std::string& path) {
    const auto found = preflight.attributes.find(path);
    return found == preflight.attributes.end() ? "" : ": " + found->second;
}

}  // namespace

void reportRefusal(const std::string& path, std::string_view code, std::string_view reason,
                   Report& report) {
    report.problem("refusal", {{"path", path}, {"code", code}, {"reason", reason}},
                   fmt::format("refused: {} {}", printable(path), reason));
}

void reportFindings(const Preflight& preflight, Report& report) {
    for (const auto& [finding, paths] : preflight.findings) {
        const FindingText about = describe(finding);
        const size_t shown =
            report.forPrograms() ? paths.size() : std::min(paths.size(), kNamesPerFinding);
        for (size_t i = 0; i < shown; ++i) {
            const std::string reason = std::string(about.reason) + detailOf(preflight, paths[i]);
            std::string text = fmt::format("{}: {} {}", isRefusal(finding) ? "refused" : "warning",
                                           printable(paths[i]), reason);
            if (i + 1 == shown && paths.size() > shown) {
                text += fmt::format(", and {} more", paths.size() - shown);
            }
            if (i + 1 == shown && preflight.added.contains(finding)) {
                text += fmt::format("; {} more are needed for that in all",
                                    formatBytes(preflight.added.at(finding)));
            }
            const nlohmann::json fields = {
                {"path", paths[i]}, {"code", about.code}, {"reason", reason}};
            if (isRefusal(finding)) {
                report.problem("refusal", fields, text);
            } else {
                report.warn("warning", fields, text);
            }
        }
    }
}

}  // namespace host
