#include "move/finish.h"

#include <dirent.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <vector>

#include <fmt/format.h>

#include "end/job_end.h"
#include "job/evidence.h"
#include "restore/links.h"
#include "restore/restore.h"
#include "say/command_text.h"
#include "say/text.h"
#include "tree/discard.h"
#include "tree/names.h"
#include "tree/walk.h"

namespace host {
namespace {

/// To ask for a stop is a system call.
constexpr uint64_t kRecordsBetweenStops = 100;

std::vector<std::string> leftIn(const files::HeldDirectory& root) {
    std::vector<std::string> files;
    walkTree(root, [&](const Visit& visit) {
        for (const Entry& entry : visit.entries) {
            const bool moves = entry.type == DT_REG || entry.type == DT_LNK;
            if (moves && !entry.name.starts_with(names::kOwnPrefix)) {
                files.push_back(visit.directory.pathOf(entry.name));
            }
        }
    });
    return files;
}

void throwIfStopped(const JobContext& job) {
    if (!job.stops.take()) return;
    throw JobEnd(
        ExitStatus::kPaused,
        fmt::format("Stopped while links are moved and owners, permissions, attributes and "
                    "times put back; all files have been moved. {} carries on.",
                    job.command()));
}

/// From here on the person knows what came of the job, so that its traces may go.
void close(const JobContext& job, JobRecord& record) {
    record.state = JobState::kClosing;
    storeRecord(job.held.plain, record);
}

Restored putBack(const JobContext& job, JobRecord& record) {
    Manifest manifest = openManifest(job.held, record);
    record.state = JobState::kRestoring;
    storeRecord(job.held.plain, record);
    uint64_t records = 0;
    const auto stopCheck = [&] {
        if (++records % kRecordsBetweenStops == 0) throwIfStopped(job);
    };
    Restored restored;
    // Before the times of the directories that they are in.
    if (manifest.namesLinks()) {
        moveLinks(manifest, job.source(), job.target(), stopCheck, restored);
    }
    restoreMetadata(manifest, job.source(), job.target(), stopCheck, restored);
    return restored;
}

void restore(const JobContext& job, JobRecord& record) {
    const Restored restored = record.metadata ? putBack(job, record) : Restored();
    // Modes and times, and the deletion of the lists, must be on the disks before the manifest
    // goes.
    syncTrees(job.held);
    reportRestored(restored, job.report);
    if (restored.complete()) return close(job, record);
    throw JobEnd(ExitStatus::kFailed,
                 fmt::format("The move is over, but not everything is as it should be: look at "
                             "what is named above. Once that is put right, {} tries again; "
                             "{} takes up files that are on no list any more, and {} closes the "
                             "job as it is.",
                             job.command(), commandFor("repair", job.tree.plain),
                             commandFor("forget", job.tree.plain)));
}

std::string whyNotDiscarded(int error) {
    switch (error) {
        case -EOPNOTSUPP:
        case -ENOTTY:
            return "its file system, or the device below it, cannot do that";
        case -EPERM:
            return "only root may do that";
        default:
            return std::generic_category().message(-error);
    }
}

void discard(const JobContext& job) {
    const std::string& source = job.source().path();
    job.report.say("discarding", {{"directory", source}},
                   "Discarding the free space on the file system of " + printable(source));
    const Discarded discarded = discardFreeSpace(job.source());
    if (discarded.error == 0) {
        return job.report.say("discarded", {{"directory", source}, {"bytes", discarded.bytes}},
                              fmt::format("Discarded {} of free space on the file system of {}",
                                          formatBytes(discarded.bytes), printable(source)));
    }
    const std::string why = whyNotDiscarded(discarded.error);
    job.report.warn(
        "warning", {{"path", source}, {"code", "not-discarded"}, {"reason", why}},
        fmt::format("warning: the free space of {} was not discarded: {}", printable(source), why));
}

}  // namespace

void finishJob(const JobContext& job, JobRecord& record) {
    // Before anything is written again: the blocks that ext4 sets aside for small files, for each
    // processor some, would be among those that have just become free, and are not discarded.
    if (record.discard && !record.undo) discard(job);
    if (record.state != JobState::kClosing) restore(job, record);
    // An undo leaves what the job had not brought there; without a manifest it cannot tell.
    const std::vector<std::string> left =
        record.undo && record.metadata ? std::vector<std::string>() : leftIn(job.source());
    if (!left.empty()) {
        job.report.problem("left", {{"paths", left}},
                           fmt::format("{} still in the source:{}", counted(left.size(), "file"),
                                       nameLines(left)));
    }
    removeEvidence(job.held);
    putBackRootTimes(job.held, record);
    const std::string target = printable(job.target().path());
    if (!left.empty() && !record.undo) {
        throw JobEnd(ExitStatus::kFailed,
                     fmt::format("{} moved to {}, but those named above have come meanwhile or "
                                 "could not be deleted; {} moves them.",
                                 counted(record.files, "file"), target, job.command()));
    }
    const char* const metadata =
        record.metadata ? ", with the owners, permissions and times they had."
                        : ". What owners, permissions and times they had is not known any more.";
    job.report.end(
        true,
        {{"result", "done"}, {"exit_status", 0}, {"files", record.files}, {"bytes", record.size()}},
        fmt::format("{}: {} ({}) moved {} {}{}", record.undo ? "Undone" : "Done",
                    counted(record.files, "file"), formatBytes(record.size()),
                    record.undo ? "back to" : "to", target, metadata));
}

}  // namespace host
