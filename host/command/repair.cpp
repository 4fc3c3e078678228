#include "command/repair.h"

#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "command/rebuild.h"
#include "end/job_end.h"
#include "job/evidence.h"
#include "job/hold.h"
#include "job/job_record.h"
#include "job/pair.h"
#include "job/record_command.h"
#include "lists/lists.h"
#include "say/command_text.h"
#include "tree/durable.h"
#include "tree/file_system.h"
#include "tree/held_tree.h"
#include "tree/names.h"
#include "tree/walk.h"

using files::HeldDirectory;

namespace host {
namespace {

/// What can be read of a job, and in words what cannot.
struct Known {
    std::optional<JobRecord> record;
    std::optional<ManifestHeader> manifest;
    std::optional<std::string> mark;
    bool listsInPlain = false;
    bool listsInEncrypted = false;
    std::vector<std::string> sentences;
};

bool hasLists(const HeldDirectory& root) {
    bool found = false;
    if (!root.isOpen()) return found;
    walkTree(root, [&](const Visit& visit) {
        for (const Entry& entry : visit.entries) found |= entry.name == names::kProcessFile;
    });
    return found;
}

void readRecord(const HeldTree& tree, Known& known) {
    try {
        known.record = loadRecord(tree.plain);
        known.sentences.push_back(known.record ? fmt::format("The record says: {}, {}.",
                                                             jobText(*known.record),
                                                             stateWord(known.record->state))
                                               : "There is no record.");
    } catch (const RecordDamaged&) {
        known.sentences.emplace_back("The record is damaged.");
    }
}

void readManifestHeader(const HeldTree& tree, Known& known) {
    try {
        known.manifest = Manifest(tree.plain).header();
        const bool fits = !known.record || known.record->id == known.manifest->job;
        if (!fits) known.manifest.reset();
        known.sentences.emplace_back(fits ? "The manifest is whole."
                                          : "The manifest is that of another job.");
    } catch (const ManifestDamaged& damaged) {
        known.sentences.push_back(std::string(damaged.what()) + ".");
    }
}

Known lookAtEvidence(const HeldTree& tree) {
    Known known;
    readRecord(tree, known);
    readManifestHeader(tree, known);
    if (tree.encrypted.isOpen()) known.mark = readIfThere(tree.encrypted, names::kMark);
    known.sentences.emplace_back(known.mark ? "There is a mark in the encrypted directory."
                                            : "There is no mark in the encrypted directory.");
    known.listsInPlain = hasLists(tree.plain);
    known.listsInEncrypted = hasLists(tree.encrypted);
    known.sentences.push_back(fmt::format(
        "Lists are in {}.", known.listsInPlain && known.listsInEncrypted ? "both directories"
                            : known.listsInPlain                         ? "the plain directory"
                            : known.listsInEncrypted                     ? "the encrypted directory"
                                                                         : "neither directory"));
    return known;
}

[[noreturn]] void refuse(const std::string& why) {
    throw JobEnd(ExitStatus::kRefused, why + " Nothing was touched.");
}

Direction directionFrom(const Known& known) {
    if (known.manifest) return known.manifest->direction;
    if (known.listsInPlain == known.listsInEncrypted) {
        refuse("Nothing that can be read says in which direction files were moved.");
    }
    return known.listsInPlain ? Direction::kEncrypt : Direction::kDecrypt;
}

/// The record of a job that is to be carried on, from what is known of it.
JobRecord recordFrom(const Known& known, const HeldTree& tree) {
    if (known.record) return *known.record;
    JobRecord record = newRecord(directionFrom(known));
    if (known.manifest) {
        record.id = known.manifest->job;
        // Lists on the other side alone are those of an undo.
        const bool encrypts = record.direction == Direction::kEncrypt;
        record.undo = encrypts ? known.listsInEncrypted && !known.listsInPlain
                               : known.listsInPlain && !known.listsInEncrypted;
        if (record.undo) record.direction = opposite(record.direction);
    }
    record.plain = !isOnEcryptfs(tree.encrypted);
    return record;
}

/// A directory that is not the one with which the job began must not get its mark.
bool isTheSameTarget(const HeldTree& tree, const JobRecord& record, const Rebuilt& rebuilt) {
    return markFits(tree.encrypted, record) || rebuilt.movedButMissing == 0;
}

class Repair {
  public:
    Repair(const Tree& paths, const HeldTree& tree, bool asItIs, const std::string& givenWorker,
           Report& report)
        : paths_(paths), tree_(tree), asItIs_(asItIs), givenWorker_(givenWorker), report_(report) {}

    void run() {
        const Known known = lookAtEvidence(tree_);
        tellWhatIsKnown(known);
        if (!known.record && !known.manifest && !known.mark && !known.listsInPlain &&
            !known.listsInEncrypted) {
            return say("There is no job here, and nothing to repair.");
        }
        if (!known.record && !known.manifest && !known.listsInPlain && !known.listsInEncrypted) {
            return clear();
        }
        JobRecord record = recordFrom(known, tree_);
        if (record.state == JobState::kPreparing && known.record) {
            const Pair pair = lookAtPair(tree_, givenWorker_);
            if (pair.obstacle.empty()) {
                return say("Nothing has been moved; " +
                           commandOf(record, paths_.plain, givenWorker_) + " begins again.");
            }
            if (!known.manifest) throw JobEnd(ExitStatus::kRefused, pair.obstacle);
        }
        if (record.state == JobState::kClosing) return tellCommand(record);
        if (known.manifest) {
            repairWithManifest(record);
        } else {
            repairWithoutManifest(known, record);
        }
    }

  private:
    void say(const std::string& text) { report_.say("repair", {{"message", text}}, text); }

    void tellWhatIsKnown(const Known& known) {
        for (const std::string& sentence : known.sentences) say(printable(sentence));
    }

    [[nodiscard]] std::string asItIsCommand() const {
        return commandFor("repair --as-it-is", paths_.plain);
    }

    void tellCommand(const JobRecord& record) {
        say(commandOf(record, paths_.plain, givenWorker_) + " carries on.");
    }

    /// Neither lists nor a manifest: whatever this was, nothing can be carried on.
    void clear() {
        if (!asItIs_) {
            refuse(fmt::format(
                "Nothing here says any more what was moved, or what owners, permissions "
                "and times it had. If {} is the directory with which the job began, "
                "{} removes what is left of it.",
                printable(paths_.plain), asItIsCommand()));
        }
        removeEvidence(tree_);
        say("What was left of the job is gone.");
    }

    void repairWithManifest(JobRecord& record) {
        record.metadata = true;
        const Rebuilt found = surveyForRepair(tree_, record);
        record.rootTime = found.rootTime;
        if (!markFits(tree_.encrypted, record) && found.moved == 0 && !record.undo) {
            discardPreparation(tree_, record);
            return say("Nothing has been moved, and the traces of the job are gone; " +
                       commandOf(record, paths_.plain, givenWorker_) + " begins again.");
        }
        if (!isTheSameTarget(tree_, record, found) && !asItIs_) {
            refuse(fmt::format(
                "{} lacks {} of the {} files that have been moved: mount the "
                "directory there with which the job began. If that is what it is, "
                "{} takes it so.",
                printable(paths_.encrypted), found.movedButMissing, found.moved, asItIsCommand()));
        }
        record.files = found.files;
        record.bytes = found.bytes;
        record.nameBytes = found.nameBytes;
        if (asItIs_) rewriteManifest(tree_, record);
        rebuildLists(tree_, record);
        if (record.undo) takeTotals(record);  // Most of its manifest may never have moved.
        settle(record);
    }

    void repairWithoutManifest(const Known& known, JobRecord& record) {
        if (known.record && !record.metadata) return repairLists(record);
        if (!asItIs_) {
            refuse(
                fmt::format("Without its manifest the job cannot put owners, permissions and "
                            "times back. {} prepares it to be finished without them.",
                            asItIsCommand()));
        }
        if (known.record && !markFits(tree_.encrypted, record)) {
            refuse(printable(paths_.encrypted) + " is not what the job began with.");
        }
        record.metadata = false;
        if (isTurning(record)) {
            // What was to go back is not known: the job goes on as it began.
            record.direction = record.begun();
            record.undo = false;
            record.state = JobState::kMoving;
            removeLists(tree_.target(record.direction));
        }
        repairLists(record);
    }

    static bool isTurning(const JobRecord& record) {
        return record.state == JobState::kAdvancing || record.state == JobState::kTurning;
    }

    void takeTotals(JobRecord& record) {
        const Pending pending = countPending(tree_.source(record.direction));
        record.files = pending.files;
        record.bytes = pending.bytes;
        record.nameBytes = pending.nameBytes;
    }

    void repairLists(JobRecord& record) {
        const std::vector<std::string> doubtful = rebuildListsFromSource(tree_, record);
        if (!doubtful.empty()) {
            report_.problem("stash", {{"paths", doubtful}},
                            "Each of these may be the whole copy of a file that waits for its "
                            "name without the dot:" +
                                nameLines(doubtful));
        }
        takeTotals(record);
        settle(record);
    }

    /// The record last: until it is there, a repair that was stopped is simply done again.
    void settle(JobRecord& record) {
        const bool listsLeft = !countPending(tree_.source(record.direction)).lists.empty();
        // An undo that turns makes its lists itself.
        if (!isTurning(record)) {
            record.state = listsLeft ? JobState::kMoving : JobState::kRestoring;
        }
        storeMark(tree_.encrypted, record);
        storeRecord(tree_.plain, record);
        tellCommand(record);
    }

    const Tree& paths_;
    const HeldTree& tree_;
    bool asItIs_;
    const std::string& givenWorker_;
    Report& report_;
};

}  // namespace

void repairJob(const Tree& tree, bool asItIs, const std::string& givenWorker, Report& report) {
    const HeldTree held(tree);
    refuseOverlap(held);
    // cppcheck-suppress unreadVariable ; it is held while we work
    const TreeLock lock = lockTree(held);
    for (const HeldDirectory* const root : {&held.plain, &held.encrypted}) {
        if (!root->isOpen()) refuse(printable(root->path()) + " is missing.");
        syncFound(*root);
    }
    refuseOtherPair(held);
    Repair(tree, held, asItIs, givenWorker, report).run();
}

}  // namespace host
