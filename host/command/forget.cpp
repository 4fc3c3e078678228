#include "command/forget.h"

#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "end/job_end.h"
#include "job/evidence.h"
#include "job/hold.h"
#include "job/pair.h"
#include "job/record_command.h"
#include "lists/lists.h"
#include "restore/restore.h"
#include "say/command_text.h"
#include "tree/held_tree.h"

namespace host {
namespace {

[[noreturn]] void refuse(const std::string& why) {
    throw JobEnd(ExitStatus::kRefused,
                 fmt::format("{} Nothing was touched and nothing is forgotten.", why));
}

/// What the person is asked to confirm. Names everything that is not as it was.
std::string whatIsGivenUp(const HeldTree& tree, const JobRecord& record, Report& report) {
    if (!record.metadata) return "nothing that is still known";
    Manifest manifest = openManifest(tree, record);
    const Restored found =
        compareMetadata(manifest, tree.source(record.direction), tree.target(record.direction));
    reportRestored(found, report);
    return fmt::format(
        "what {} files and directories had as owner, permissions, attributes and time, and that {} "
        "others "
        "were there at all",
        found.refused.size(), found.missing.size());
}

}  // namespace

void forgetJob(const Tree& tree, bool confirmed, const std::string& givenWorker, Report& report) {
    const HeldTree held(tree);
    refuseOverlap(held);
    // cppcheck-suppress unreadVariable ; it is held while we work
    const TreeLock lock = lockTree(held);
    const Pair pair = lookAtPair(held, givenWorker);
    if (!pair.obstacle.empty()) throw JobEnd(ExitStatus::kRefused, pair.obstacle);
    const std::optional<JobRecord>& record = pair.record;
    if (!record) refuse("There is no job to forget.");
    const std::string command = commandOf(*record, tree.plain, givenWorker);
    if (record->state != JobState::kRestoring && record->state != JobState::kClosing) {
        refuse(fmt::format("Files are still to be moved; {} carries on.", command));
    }
    if (!countPending(held.source(record->direction)).lists.empty()) {
        refuse(fmt::format("There are lists of files that are still to be moved; {} tells more.",
                           commandFor("repair", tree.plain)));
    }
    const std::string lost = whatIsGivenUp(held, *record, report);
    if (!confirmed) {
        throw JobEnd(
            ExitStatus::kRefused,
            fmt::format("To forget this job gives up for ever {}. {} does that; {} tries to "
                        "put it back once more.",
                        lost, commandFor("forget --yes", tree.plain), command));
    }
    removeEvidence(held);
    putBackRootTimes(held, *record);
    report.say("forgotten", {{"directory", tree.plain}},
               "The job is forgotten, and with it " + lost + ".");
}

}  // namespace host
