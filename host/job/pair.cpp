#include "job/pair.h"

#include <string_view>
#include <system_error>

#include <fmt/format.h>

#include "end/job_end.h"
#include "job/record_command.h"
#include "say/command_text.h"
#include "say/report.h"
#include "tree/durable.h"
#include "tree/file_system.h"
#include "tree/names.h"
#include "tree/overlap.h"

using files::HeldDirectory;

namespace host {
namespace {

bool holds(const HeldDirectory& root, std::string_view name) {
    struct stat status {};
    return root.look(std::string(name), &status);
}

std::string overlapText(const HeldTree& tree) {
    const std::string plain = printable(tree.plain.path());
    const std::string encrypted = printable(tree.encrypted.path());
    switch (overlapOf(tree.plain, tree.encrypted)) {
        case Overlap::kSame:
            return encrypted + " is " + plain + " itself. Nothing was touched.";
        case Overlap::kEncryptedInside:
            return encrypted + " lies inside " + plain +
                   ", which would be moved into itself. Nothing was touched.";
        case Overlap::kPlainInside:
            return plain + " lies inside " + encrypted +
                   ", which would be moved into itself. Nothing was touched.";
        case Overlap::kNone:
            break;
    }
    return {};
}

/// The plain root of the pair that this is the encrypted root of.
std::string partnerOf(const std::string& encrypted) {
    return encrypted.ends_with(names::kEncryptedSuffix)
               ? encrypted.substr(0, encrypted.size() - names::kEncryptedSuffix.size())
               : encrypted;
}

/// A root that belongs to another pair, whose job is unfinished; the two pairs have it in common.
std::string otherPair(const HeldTree& tree) {
    const std::string& plain = tree.plain.path();
    const std::string& encrypted = tree.encrypted.path();
    if (holds(tree.plain, names::kMark)) {
        return fmt::format(
            "{} is the encrypted directory of an unfinished move. Nothing was touched; "
            "finish that first ({} tells more).",
            printable(plain), commandFor("status", partnerOf(plain)));
    }
    if (holds(tree.encrypted, names::kJobRecord)) {
        return fmt::format(
            "{} is the plain directory of an unfinished move. Nothing was touched; "
            "finish that first ({} tells more).",
            printable(encrypted), commandFor("status", encrypted));
    }
    return {};
}

std::string otherPlain(const HeldTree& tree) {
    const std::string plain = printable(tree.plain.path());
    const std::string mark = printable(tree.encrypted.pathOf(std::string(names::kMark)));
    return fmt::format(
        "{} belongs to an unfinished move, but {}. Nothing was touched; put the directory that the "
        "move began with back at {}, and {} says how it goes on. Only if that "
        "one is gone for good, remove {}.",
        printable(tree.encrypted.path()),
        tree.plain.isOpen() ? "this " + plain + " is not the directory that it began with"
                            : plain + " is missing",
        plain, commandFor("status", tree.plain.path()), mark);
}

std::string otherEncrypted(const HeldTree& tree, const JobRecord& record,
                           const std::string& givenWorker) {
    return fmt::format("{} {}. Nothing was touched; {} there and run {} again.",
                       printable(tree.encrypted.path()),
                       tree.encrypted.isOpen() ? "is not what this move began with" : "is missing",
                       record.plain ? "put the directory that it began with back"
                                    : "mount the eCryptfs directory with its own key",
                       commandOf(record, tree.plain.path(), givenWorker));
}

/// Whether the encrypted root must bear the mark of the job. Before anything is moved it is made
/// before the manifest, and it is removed after it: without a manifest there are no lists.
bool needsMark(const HeldTree& tree, const JobRecord& record) {
    const bool moved = record.state != JobState::kPreparing && record.state != JobState::kClosing;
    return moved || holds(tree.plain, names::kManifest);
}

std::string obstacleOf(const HeldTree& tree, const std::optional<JobRecord>& record,
                       const std::string& givenWorker) {
    if (std::string overlap = overlapText(tree); !overlap.empty()) return overlap;
    if (std::string other = otherPair(tree); !other.empty()) return other;
    const bool marked = holds(tree.encrypted, names::kMark);
    if (!record) return marked ? otherPlain(tree) : "";
    const bool otherKind = !record->plain && !isOnEcryptfs(tree.encrypted);
    const bool otherMark = marked ? !markFits(tree.encrypted, *record) : needsMark(tree, *record);
    return otherKind || otherMark ? otherEncrypted(tree, *record, givenWorker) : "";
}

}  // namespace

void refuseOverlap(const HeldTree& tree) {
    const std::string text = overlapText(tree);
    if (!text.empty()) throw JobEnd(ExitStatus::kRefused, text);
}

void refuseOtherPair(const HeldTree& tree) {
    const std::string text = otherPair(tree);
    if (!text.empty()) throw JobEnd(ExitStatus::kRefused, text);
}

Pair lookAtPair(const HeldTree& tree, const std::string& givenWorker) {
    Pair pair;
    // The plain root may be missing before a way back.
    if (tree.plain.isOpen()) pair.record = loadRecord(tree.plain);
    pair.obstacle = obstacleOf(tree, pair.record, givenWorker);
    return pair;
}

}  // namespace host
