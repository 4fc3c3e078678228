#include <algorithm>
#include <system_error>

#include <fmt/format.h>

#include "job.h"
#include "job_record.h"
#include "process_files.h"

namespace host {
namespace {

constexpr size_t kNamesPerFinding = 10;

/// Where a job that was begun stands, from the record and from what the lists still hold.
struct Standing {
    JobRecord record;
    Pending pending;
    Progress progress;
};

Standing standingOf(const Tree& tree, const JobRecord& record) {
    Standing standing{.record = record, .pending = {}, .progress = {}};
    if (record.state == JobState::kMoving)
        standing.pending = countPending(tree.source(record.direction));
    standing.progress.total = record.bytes;
    standing.progress.done = record.bytes - std::min(record.bytes, standing.pending.bytes);
    return standing;
}

std::string whatNext(const Tree& tree, const JobRecord& record, Holder holder) {
    switch (holder) {
        case Holder::kHost:
            return "A vaultctl is at work on it.";
        case Holder::kWorkerAlone:
            return fmt::format(
                "Its vaultctl has ended, the worker (process {}) is still moving "
                "files: wait until it has ended, then run {}.",
                record.worker, commandFor(record.direction, tree));
        case Holder::kNobody:
            break;
    }
    return fmt::format("Nobody is at work on it: {} carries on.",
                       commandFor(record.direction, tree));
}

std::string describeStanding(const Standing& standing) {
    const std::string job(toWord(standing.record.direction));
    switch (standing.record.state) {
        case JobState::kPreparing:
            return job + " is being prepared; nothing has been moved.";
        case JobState::kRestoring:
            return job +
                   ": all files have been moved; owners, permissions and times are being "
                   "put back.";
        case JobState::kMoving:
            break;
    }
    return fmt::format("{}, {} of {} files still to move.",
                       progressSentence(job, standing.progress), standing.pending.files,
                       standing.record.files);
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

/// A job that was begun: the check is whether the same command would carry on.
bool checkBegun(const Tree& tree, const JobOptions& options, const JobRecord& record,
                Report& report) {
    const bool mine = record.direction == options.direction;
    report.say("check", {{"could_start", mine}, {"unfinished", toWord(record.direction)}},
               describeStanding(standingOf(tree, record)));
    if (!mine) {
        report.problem(
            "refusal", {{"path", tree.plain}, {"code", "unfinished-job"}},
            "refused: the unfinished job comes first: " + commandFor(record.direction, tree));
    }
    return mine;
}

}  // namespace

void reportFindings(const Preflight& preflight, Report& report) {
    for (const auto& [finding, paths] : preflight.findings) {
        const auto [code, reason] = describe(finding);
        const size_t shown =
            report.forPrograms() ? paths.size() : std::min(paths.size(), kNamesPerFinding);
        for (size_t i = 0; i < shown; ++i) {
            std::string text = fmt::format("{}: {} {}", isRefusal(finding) ? "refused" : "warning",
                                           printable(paths[i]), reason);
            if (i + 1 == shown && paths.size() > shown) {
                text += fmt::format(", and {} more", paths.size() - shown);
            }
            const nlohmann::json fields = {{"path", paths[i]}, {"code", code}, {"reason", reason}};
            if (isRefusal(finding)) {
                report.problem("refusal", fields, text);
            } else {
                report.warn("warning", fields, text);
            }
        }
    }
}

bool checkJob(const Tree& tree, const JobOptions& options, Report& report) {
    const std::optional<JobRecord> record = loadRecord(tree);
    if (record && record->state != JobState::kPreparing) {
        return checkBegun(tree, options, *record, report);
    }
    const Preflight found = inspect(tree, options.direction, options.preflight, [] {});
    reportFindings(found, report);
    const bool possible = !found.refused();
    const std::string verdict = possible ? "It could start." : "It would be refused.";
    report.say("check",
               {{"could_start", possible},
                {"files", found.files},
                {"bytes", found.bytes},
                {"largest", found.largest}},
               fmt::format("{} would move {} files ({}, the largest {}) from {} to {}. {}",
                           toWord(options.direction), found.files, formatBytes(found.bytes),
                           formatBytes(found.largest), printable(tree.source(options.direction)),
                           printable(tree.target(options.direction)), verdict));
    return possible;
}

void showStatus(const Tree& tree, Report& report) {
    const std::optional<JobRecord> record = loadRecord(tree);
    const Holder holder = lookAtLock(tree);
    if (!record) {
        report.say("status", {{"job", nullptr}, {"at_work", toWord(holder)}},
                   holder == Holder::kNobody ? "No job."
                                             : "A vaultctl is looking at the tree; nothing has "
                                               "been moved.");
        return;
    }
    const Standing standing = standingOf(tree, *record);
    const std::string next = whatNext(tree, *record, holder);
    report.say("status",
               {{"job", toWord(record->direction)},
                {"state", stateWord(record->state)},
                {"at_work", toWord(holder)},
                {"files", record->files},
                {"files_left", standing.pending.files},
                {"bytes", record->bytes},
                {"bytes_done", standing.progress.done},
                {"next", next}},
               describeStanding(standing) + "\n" + next);
}

}  // namespace host
