#include "preparation.h"

#include <dirent.h>
#include <sys/stat.h>

#include "durable_file.h"
#include "failure_text.h"
#include "job_end.h"
#include "manifest.h"
#include "name_trial.h"
#include "preflight.h"
#include "process_files.h"
#include "tree_walk.h"

namespace host {
namespace {

/// Takes back what was made before anything was moved, except for empty directories. The lists
/// have changed the times of the directories they lay in, the record that of the root.
void discardPreparation(const Tree& tree, const JobRecord& record) {
    const std::string& source = tree.source(record.direction);
    removeLists(source);
    readManifest(tree, [&source](const Metadata& metadata) {
        // One that has gone meanwhile needs no time.
        if (metadata.directory) (void)putBackTime(metadata, source + metadata.relative);
    });
    removeDurably(tree.manifestPath());
    if (isDirectory(tree.encrypted)) removeDurably(tree.markPath());
    removeDurably(tree.recordPath());
    Metadata root;
    root.modified = record.rootTime;
    (void)putBackTime(root, source);
}

[[noreturn]] void refuse(const JobContext& job, const std::string& state) {
    throw JobEnd(ExitStatus::kRefused, "Refused for the reasons above; nothing was " + state +
                                           ". Put them right and run " + job.command() + " again.");
}

void refuseWhatCannotMove(const JobContext& job) {
    const Preflight found = inspect(job.tree, job.options.direction, job.options.preflight,
                                    [&job] { job.stops.throwIfAsked(); });
    reportFindings(found, job.report);
    if (found.refused()) refuse(job, "touched");
}

/// What can be seen only once the target's directories are there: the way back finds them by
/// listing, and two files whose names the target takes for one would become one file.
void refuseUnfitTarget(const JobContext& job, const JobRecord& record) {
    Preflight found;
    for (const Entry& entry : listDirectory(job.target())) {
        if (entry.type == DT_UNKNOWN) found.findings[Finding::kNoEntryTypes] = {job.target()};
    }
    walkTree(job.source(), [&](const std::string& relative, const std::vector<Entry>& entries) {
        job.stops.throwIfAsked();
        for (const std::string& name : unfitNames(job.target() + relative, entries)) {
            found.findings[Finding::kUnfitName].push_back(job.source() + relative + "/" + name);
        }
    });
    if (!found.refused()) return;
    discardPreparation(job.tree, record);
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
        discardPreparation(job.tree, record);
        throw JobEnd(outcome.noSpace ? ExitStatus::kRefused : ExitStatus::kFailed,
                     explainScan(outcome, job.source(), job.command()));
    }
    record.bytes = *outcome.totalSize;
}

/// The source's root as it is before our own files change its time.
timespec rootTime(const JobContext& job) {
    struct stat status {};
    if (stat(job.source().c_str(), &status) != 0) throwErrno("cannot look at " + job.source());
    return status.st_mtim;
}

}  // namespace

JobRecord prepareJob(const JobContext& job, const std::optional<JobRecord>& abandoned) {
    const Direction direction = job.options.direction;
    const auto stopCheck = [&job] { job.stops.throwIfAsked(); };
    JobRecord record = newRecord(direction, !isOnEcryptfs(job.tree.encrypted));
    if (abandoned) discardPreparation(job.tree, *abandoned);
    job.report.say("preparing", {{"source", job.source()}},
                   "Looking through " + printable(job.source()));
    refuseWhatCannotMove(job);
    record.rootTime = rootTime(job);
    storeRecord(job.tree, record);
    makeTargetDirectories(job.tree, direction, stopCheck);
    refuseUnfitTarget(job, record);
    writeManifest(job.tree, direction, record.rootTime, stopCheck);
    scan(job, record);
    makeListsSafe(job.tree, direction, stopCheck);
    record.files = countPending(job.source()).files;
    storeMark(job.tree, record);
    job.stops.throwIfAsked();
    record.state = JobState::kMoving;
    storeRecord(job.tree, record);
    return record;
}

}  // namespace host
