#include "job/preparation.h"

#include <dirent.h>
#include <sys/stat.h>

#include "end/job_end.h"
#include "end/throw_errno.h"
#include "job/evidence.h"
#include "look/name_trial.h"
#include "look/preflight.h"
#include "say/failure_text.h"
#include "say/finding_texts.h"
#include "tree/descent.h"
#include "tree/durable.h"
#include "tree/file_system.h"
#include "tree/manifest.h"
#include "tree/metadata.h"
#include "tree/names.h"
#include "tree/target_directories.h"
#include "tree/walk.h"
#include "worker/lists.h"

using files::HeldDirectory;

namespace host {
namespace {

[[noreturn]] void refuse(const JobContext& job, const std::string& state) {
    throw JobEnd(ExitStatus::kRefused, "Refused for the reasons above; nothing was " + state +
                                           ". Put them right and run " + job.command() + " again.");
}

/// What can be seen only once the target's directories are there: the way back finds them by
/// listing, and two files whose names the target takes for one would become one file.
void refuseUnfitTarget(const JobContext& job, const JobRecord& record) {
    Preflight found;
    Descent targets(job.target());
    HeldDirectory root = targets.open("");
    for (const Entry& entry : listDirectory(root)) {
        if (entry.type == DT_UNKNOWN) found.findings[Finding::kNoEntryTypes] = {root.path()};
    }
    walkTree(job.source(), [&](const Visit& visit) {
        job.throwIfStopped();
        for (const std::string& name : unfitNames(targets.open(visit.relative), visit.entries)) {
            found.findings[Finding::kUnfitName].push_back(visit.directory.pathOf(name));
        }
    });
    if (!found.refused()) return;
    discardPreparation(job.held, record);
    reportFindings(found, job.report);
    refuse(job, "moved");
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

/// The source's root as it is before our own files change its time.
timespec rootTime(const JobContext& job) {
    struct stat status {};
    if (fstat(job.source().descriptor(), &status) != 0) {
        throwErrno("cannot look at " + job.source().path());
    }
    return status.st_mtim;
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
    const Preflight found = inspect(job.held, job.options.direction, job.options.preflight,
                                    std::nullopt, [&job] { job.throwIfStopped(); });
    if (job.held.plain.isOpen() || found.refused()) reportFindings(found, job.report);
    if (found.refused()) refuse(job, "touched");
}

JobRecord prepareJob(const JobContext& job, const std::optional<JobRecord>& abandoned) {
    const auto stopCheck = [&job] { job.throwIfStopped(); };
    JobRecord record = newRecord(job.options.direction);
    record.plain = !isOnEcryptfs(job.held.encrypted);
    record.replace = job.options.preflight.replace;
    if (abandoned) discardPreparation(job.held, *abandoned);
    const std::string source = job.source().path();
    job.report.say("preparing", {{"source", source}}, "Looking through " + printable(source));
    refuseWhatCannotMove(job);
    record.rootTime = rootTime(job);
    storeRecord(job.held.plain, record);
    (void)loadRecord(job.held.plain);  // As a restart will: before anything depends on it.
    makeTargetDirectories(job.source(), job.target(), stopCheck);
    refuseUnfitTarget(job, record);
    // Before the manifest and the lists: once they are there, both roots must be the same again.
    storeMark(job.held.encrypted, record);
    writeManifest(job.held.plain, {.job = record.id, .direction = record.direction}, job.source(),
                  record.rootTime, stopCheck);
    scan(job, record);
    makeListsSafe(job.source(), job.target(), stopCheck);
    const Pending pending = countPending(job.source());
    record.files = pending.files;
    record.nameBytes = pending.nameBytes;
    hide(job, record);
    job.throwIfStopped();
    record.state = JobState::kMoving;
    storeRecord(job.held.plain, record);
    return record;
}

}  // namespace host
