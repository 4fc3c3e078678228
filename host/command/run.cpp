#include "command/run.h"

#include <sys/stat.h>

#include <cerrno>
#include <optional>
#include <system_error>

#include <fmt/format.h>

#include "end/job_end.h"
#include "end/throw_errno.h"
#include "job/evidence.h"
#include "job/hold.h"
#include "job/job_context.h"
#include "job/pair.h"
#include "job/record_command.h"
#include "lists/lists.h"
#include "move/finish.h"
#include "move/move.h"
#include "move/preparation.h"
#include "move/resume_check.h"
#include "move/target_directories.h"
#include "tree/durable.h"
#include "undo/undo.h"

using files::HeldDirectory;

namespace host {
namespace {

/// Why a kill at any instant is recoverable. Until the record says "moving" nothing has left the
/// source, and whatever there is (directories in the target, lists, a manifest) is thrown away or
/// made again. Before it says so, everything a resume depends on is on the disk: the directories,
/// the manifest, the lists in a safe order, the mark. While it says so the lists are never written
/// anew by a scan, since the worker's place in them is what finds a file that is under way. It
/// says "restoring" only when no list is left, and "closing" only when all is put back and the
/// person has been told what came of it. What an undo adds to this stands in undo/undo.cpp. Then
/// the manifest goes before the mark and the mark before the record, so what is found after a kill
/// is never less than what is still to be done.
class Job {
  public:
    explicit Job(const JobContext& context) : job_(context) {}

    void run(const std::optional<JobRecord>& found) {
        if (found && found->state != JobState::kPreparing) {
            resume(*found);
        } else {
            pending_ = prepareJob(job_, found, record_);
        }
        if (record_.state == JobState::kMoving) moveFiles(job_, record_, pending_, resumed_);
        finishJob(job_, record_);
    }

  private:
    void resume(const JobRecord& record) {
        if (record.undo || record.direction != job_.options.direction) {
            throw JobEnd(ExitStatus::kRefused,
                         fmt::format("An unfinished {} holds this tree. Nothing was touched; "
                                     "finish it with {} first.",
                                     jobText(record),
                                     commandOf(record, job_.tree.plain, job_.options.givenWorker)));
        }
        record_ = record;
        record_.discard |= job_.options.discard;
        if (record.state == JobState::kRestoring && !countPending(job_.source()).lists.empty()) {
            // A directory that somebody had taken away is back, with its list.
            record_.state = JobState::kMoving;
        }
        if (record_.state == JobState::kMoving) {
            // A directory that was removed meanwhile would be passed over.
            const auto stopCheck = [this] { job_.throwIfPaused(); };
            makeTargetDirectories(job_.source(), job_.target(), stopCheck);
            makeListsSafe(job_.source(), job_.target(), stopCheck);
            refuseWhatDoesNotFit(job_, record);
            pending_ = countPending(job_.source());
        }
        resumed_ = true;
    }

    JobContext job_;
    JobRecord record_;
    Pending pending_;
    bool resumed_ = false;
};

/// The way back into a directory that was removed. Its place is looked at before it is made, so
/// that a refused job makes nothing.
void makePlainRoot(const JobContext& job, HeldTree& held, TreeLock& lock) {
    refuseWhatCannotMove(job);
    // It gets the owner and mode of the other root before the first file arrives.
    if (mkdir(job.tree.plain.c_str(), 0700) != 0) throwErrno("cannot create " + job.tree.plain);
    syncDirectory(HeldDirectory::openRoot(job.tree.plain + "/.."));
    held.plain = HeldDirectory::openRoot(job.tree.plain);
    throwIfError(held.plain.error(), "cannot open " + job.tree.plain);
    if (lock.lockPlain(held.plain)) return;
    throw JobEnd(ExitStatus::kRefused, explainHolder(held, Holder::kHost, std::nullopt));
}

void run(const Tree& tree, const JobOptions& options, StopSignals& stops, Report& report) {
    HeldTree held(tree);
    refuseOverlap(held);
    TreeLock lock = lockTree(held);
    const Pair pair = lookAtPair(held, options.givenWorker);
    if (!pair.obstacle.empty()) throw JobEnd(ExitStatus::kRefused, pair.obstacle);
    const JobContext job{tree, held, options, lock, stops, report};
    if (!held.plain.isOpen()) {
        if (held.plain.error() != -ENOENT || options.undo ||
            options.direction == Direction::kEncrypt) {
            throw JobEnd(ExitStatus::kRefused,
                         printable(tree.plain) + " is no directory. Nothing was touched.");
        }
        makePlainRoot(job, held, lock);
    }
    if (pair.record) {
        // What is seen here may be what could not be written before the last run ended.
        syncFound(held.plain);
        if (held.encrypted.isOpen()) syncFound(held.encrypted);
    }
    if (options.undo) return undoJob(job, pair.record);
    Job(job).run(pair.record);
}

}  // namespace

void runJob(const Tree& tree, const JobOptions& options, Report& report) {
    StopSignals stops;
    try {
        run(tree, options, stops, report);
    } catch (const std::system_error& error) {
        throw JobEnd(
            ExitStatus::kFailed,
            fmt::format("It stopped: {}. No file is lost; put that right and run {} again.",
                        error.what(), options.command(tree.plain)));
    }
}

}  // namespace host
