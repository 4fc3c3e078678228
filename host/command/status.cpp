#include "command/status.h"

#include <cerrno>
#include <string>
#include <string_view>
#include <system_error>

#include <fmt/format.h>

#include "command/standing.h"
#include "end/job_end.h"
#include "job/evidence.h"
#include "job/hold.h"
#include "job/pair.h"
#include "job/record_command.h"
#include "restore/restore.h"
#include "say/command_text.h"
#include "tree/held_tree.h"

namespace host {
namespace {

std::string whatNext(const Tree& tree, const JobRecord& record, const std::string& givenWorker,
                     Holder holder) {
    const std::string command = commandOf(record, tree.plain, givenWorker);
    switch (holder) {
        case Holder::kHost:
            return "A vaultctl is at work on it.";
        case Holder::kWorkerAlone:
            return fmt::format(
                "Its vaultctl has ended, the worker (process {}) is still moving "
                "files: wait until it has ended, then run {}.",
                record.worker, command);
        case Holder::kNobody:
            break;
    }
    return fmt::format("Nobody is at work on it: {} {}.", command,
                       record.state == JobState::kPreparing ? "begins again" : "carries on");
}

std::string_view toWord(Holder holder) {
    switch (holder) {
        case Holder::kHost:
            return "vaultctl";
        case Holder::kWorkerAlone:
            return "worker";
        case Holder::kNobody:
            break;
    }
    return "none";
}

std::string describeNone(const HeldTree& held, Holder holder) {
    if (holder != Holder::kNobody) {
        return "A vaultctl is at work here; nothing of this tree has been moved.";
    }
    return held.plain.isOpen() ? "No job."
                               : "No job. " + printable(held.plain.path()) + " is missing; " +
                                     commandFor("decrypt", held.plain.path()) + " would make it.";
}

void addJob(nlohmann::json& fields, const JobRecord& record) {
    fields["job"] = jobWord(record);
    if (record.undo) fields["undoes"] = toWord(record.begun());
    fields["state"] = stateWord(record.state);
}

/// Where the lists of the job are to be found is not known.
void showObstacle(const Pair& pair, Report& report) {
    nlohmann::json fields = {{"job", nullptr}, {"at_work", "none"}, {"next", pair.obstacle}};
    std::string text = pair.obstacle;
    if (pair.record) {
        addJob(fields, *pair.record);
        text = fmt::format("An unfinished {}.\n{}", jobText(*pair.record), text);
    }
    report.say("status", fields, text);
}

}  // namespace

void showStatus(const Tree& tree, const std::string& givenWorker, Report& report) {
    const HeldTree held(tree);
    if (!held.plain.isOpen() && (held.plain.error() != -ENOENT || !held.encrypted.isOpen())) {
        throw JobEnd(ExitStatus::kRefused,
                     fmt::format("{}: {}.", printable(tree.plain),
                                 std::generic_category().message(-held.plain.error())));
    }
    const Holder holder = holderOf(held);
    const Pair pair = lookAtPair(held, givenWorker);
    if (holder == Holder::kNobody && !pair.obstacle.empty()) return showObstacle(pair, report);
    if (!pair.record) {
        return report.say("status", {{"job", nullptr}, {"at_work", toWord(holder)}},
                          describeNone(held, holder));
    }
    const JobRecord& record = *pair.record;
    const Standing standing = standingOf(tree, record);
    const std::string next = whatNext(tree, record, givenWorker, holder);
    nlohmann::json fields = {{"at_work", toWord(holder)},
                             {"files", record.files},
                             {"files_left", standing.pending.files},
                             {"bytes", record.size()},
                             {"bytes_done", standing.progress.sizeDone},
                             {"next", next}};
    addJob(fields, record);
    report.say("status", fields, describeStanding(standing) + "\n" + next);
    if (record.state == JobState::kRestoring && record.metadata && holder == Holder::kNobody) {
        Manifest manifest = openManifest(held, record);
        reportRestored(
            compareMetadata(manifest, held.source(record.direction), held.target(record.direction)),
            report);
    }
}

}  // namespace host
