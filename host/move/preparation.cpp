#include "move/preparation.h"

#include <dirent.h>
#include <sys/stat.h>

#include "end/job_end.h"
#include "end/throw_errno.h"
#include "job/evidence.h"
#include "lists/lists.h"
#include "look/name_trial.h"
#include "look/preflight.h"
#include "look/target_trial.h"
#include "manifest/manifest.h"
#include "manifest/metadata.h"
#include "move/target_directories.h"
#include "say/failure_text.h"
#include "say/finding_texts.h"
#include "tree/descent.h"
#include "tree/durable.h"
#include "tree/file_system.h"
#include "tree/names.h"
#include "tree/walk.h"

using files::HeldDirectory;
using vaultmover::Action;
using vaultmover::WorkerOutcome;

namespace host {
namespace {

/// Of a root, before our own files change it.
timespec timeOf(const HeldDirectory& root) {
    struct stat status {};
    if (fstat(root.descriptor(), &status) != 0) throwErrno("cannot look at " + root.path());
    return status.st_mtim;
}

/// Tells people what was found, and ends a job that cannot be done.
void takeFindings(const JobContext& job, const Preflight& found, const std::string& state) {
    reportFindings(found, job.report);
    if (found.refused()) {
        throw JobEnd(ExitStatus::kRefused, "Refused for the reasons above; nothing was " + state +
                                               ". Put them right and run " + job.command() +
                                               " again.");
    }
}

/// Looks at both trees, and writes down what the source is like. Throws JobEnd (refused).
Preflight look(const JobContext& job, JobRecord& record, std::optional<ManifestWriter>& manifest) {
    TargetTrial trial(job.source(), job.target(), record.dropAttributes);
    timespec targetTime{};
    const Onlooker onlooker = {
        .begin =
            [&] {
                targetTime = timeOf(job.target());
                storeRecord(job.held.plain, record);
                (void)loadRecord(job.held.plain);  // As a restart will, before anything needs it.
                manifest.emplace(job.held.plain,
                                 ManifestHeader{.job = record.id, .direction = record.direction});
            },
        .betweenDirectories = [&job] { job.throwIfStopped(); },
        .each =
            [&](Metadata metadata) {
                if (metadata.relative.empty()) metadata.modified = record.rootTime;
                trial.judge(metadata);
                manifest->add(metadata);
            }};
    Preflight found =
        inspect(job.held, job.options.direction, job.options.preflight, std::nullopt, onlooker);
    found.merge(trial.finish());
    if (found.refused() && manifest) {
        manifest.reset();
        discardPreparation(job.held, record);
        // One that belongs to somebody else has kept its time or lost it.
        (void)putBackTime(targetTime, job.target().descriptor());
    }
    takeFindings(job, found, "touched");
    record.looked = true;
    storeRecord(job.held.plain, record);
    return found;
}

/// Makes the target's directories, and looks for what can be seen only then: the way back finds its
/// files by listing, and two files whose names the target takes for one would become one file.
void prepareTarget(const JobContext& job, const JobRecord& record) {
    Preflight found;
    Descent targets(job.target());
    HeldDirectory root = targets.open("");
    for (const Entry& entry : listDirectory(root)) {
        if (entry.type == DT_UNKNOWN) found.findings[Finding::kNoEntryTypes] = {root.path()};
    }
    walkTree(job.source(), [&](const Visit& visit) {
        job.throwIfStopped();
        makeTargetDirectory(visit, targets);
        for (const std::string& name : unfitNames(targets.open(visit.relative), visit.entries)) {
            found.findings[Finding::kUnfitName].push_back(visit.directory.pathOf(name));
        }
    });
    if (found.refused()) discardPreparation(job.held, record);
    takeFindings(job, found, "moved");
}

void scan(const JobContext& job, JobRecord& record) {
    const WorkerOutcome outcome = job.callWorker(Action::kScan, record, 0, [](uint64_t) {});
    if (outcome.stopAsked) {
        throw JobEnd(ExitStatus::kPaused,
                     "Stopped before anything was moved; " + job.command() + " begins again.");
    }
    if (!outcome.succeeded || !outcome.totalSize) {
        discardPreparation(job.held, record);
        throw JobEnd(outcome.noSpace ? ExitStatus::kRefused : ExitStatus::kFailed,
                     explainScan(outcome, job.source().path(), job.command()));
    }
    record.bytes = *outcome.totalSize;
}

/// Before the first file arrives, and as late as possible: a job that is refused leaves the
/// target's root as it was.
void hide(const JobContext& job, const JobRecord& record) {
    try {
        hideTargetLikeSource(job.source(), job.target());
    } catch (const JobEnd&) {
        discardPreparation(job.held, record);
        throw;
    }
}

}  // namespace

void refuseWhatCannotMove(const JobContext& job) {
    const Preflight found =
        inspect(job.held, job.options.direction, job.options.preflight, std::nullopt,
                {.betweenDirectories = [&job] { job.throwIfStopped(); }});
    if (found.refused()) takeFindings(job, found, "touched");
}

Pending prepareJob(const JobContext& job, const std::optional<JobRecord>& abandoned,
                   JobRecord& record) {
    record = newRecord(job.options.direction);
    record.plain = !isOnEcryptfs(job.held.encrypted);
    record.replace = job.options.preflight.replace;
    record.dropAttributes = job.options.preflight.dropAttributes;
    record.discard = job.options.discard;
    if (abandoned) discardPreparation(job.held, *abandoned);
    const std::string source = job.source().path();
    job.report.say("preparing", {{"source", source}}, "Looking through " + printable(source));
    record.rootTime = timeOf(job.source());
    std::optional<ManifestWriter> manifest;
    const Preflight found = look(job, record, manifest);
    prepareTarget(job, record);
    // Before the manifest and the lists: once they are there, both roots must be the same again.
    storeMark(job.held.encrypted, record);
    manifest->commit();
    manifest.reset();
    scan(job, record);
    Pending pending = makeListsSafe(job.source(), job.target(), [&job] { job.throwIfStopped(); });
    syncFound(job.source());  // The worker does not say whether it could write all of them.
    pending.bytes = record.bytes;
    pending.largest = found.largest;
    pending.added = found.addedBytes();
    record.files = pending.files;
    record.nameBytes = pending.nameBytes;
    hide(job, record);
    job.throwIfStopped();
    record.state = JobState::kMoving;
    storeRecord(job.held.plain, record);
    return pending;
}

}  // namespace host
