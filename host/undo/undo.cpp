#include "undo/undo.h"

#include <functional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "end/job_end.h"
#include "job/evidence.h"
#include "job/record_command.h"
#include "lists/lists.h"
#include "move/finish.h"
#include "move/move.h"
#include "move/resume_check.h"
#include "move/target_directories.h"
#include "restore/links.h"
#include "say/command_text.h"
#include "say/text.h"
#include "undo/turn.h"
#include "undo/undo_check.h"

namespace host {
namespace {

/// Why a kill at any instant is recoverable here too. Until the record says "undo" the job is as it
/// was: a copy that waited for its name may have got it, and one whose file is still in the source
/// may have gone, which a resume finds like any other stop. Then no copy waits any more, so that
/// the lists are not needed to know what is under way. "Advancing" and "turning" make the lists
/// anew, from the manifest and from what stands in the two trees, and both begin from the start
/// when they were stopped. From "moving" on an undo is a job of the other direction, which knows
/// from its lists where it is; only its manifest names files that it need not move.
class Undo {
  public:
    Undo(const JobContext& job, const JobRecord& record)
        : options_(job.options),
          job_{job.tree, job.held, options_, job.lock, job.stops, job.report},
          record_(record) {}
    Undo(const Undo&) = delete;
    Undo& operator=(const Undo&) = delete;
    ~Undo() = default;

    void run() {
        const bool turned = record_.undo && record_.state != JobState::kAdvancing &&
                            record_.state != JobState::kTurning;
        options_.direction = turned ? record_.direction : record_.begun();
        if (turned) {
            resume();
        } else {
            refuseFinished();
            turn();
        }
        if (record_.state == JobState::kMoving) moveFiles(job_, record_, pending_, turned);
        finishJob(job_, record_);
    }

  private:
    void refuseFinished() const {
        const std::string command = commandOf(record_, job_.tree.plain, options_.givenWorker);
        // A directory that somebody had taken away may be back, with its list.
        if (record_.state == JobState::kClosing ||
            (record_.state == JobState::kRestoring && countPending(job_.source()).lists.empty())) {
            JobRecord back = record_;
            back.direction = opposite(record_.direction);
            back.replace = false;
            throw JobEnd(ExitStatus::kRefused,
                         fmt::format("All files of the {} have been moved. Nothing was touched; "
                                     "finish it with {}, and {} moves them back.",
                                     jobText(record_), command,
                                     commandOf(back, job_.tree.plain, options_.givenWorker)));
        }
        if (record_.metadata) return;
        throw JobEnd(ExitStatus::kRefused,
                     fmt::format("Without its manifest it is not known any more what the {} has "
                                 "moved. Nothing was touched; finish it with {}.",
                                 jobText(record_), command));
    }

    /// From a job in which files are on their way to one of which all that has arrived is listed,
    /// to be moved back.
    void turn() {
        const auto stopCheck = [this] { job_.throwIfPaused(); };
        announce();
        Manifest manifest = openManifest(job_.held, record_);
        makeDirectoriesAgain(manifest, job_.source(), stopCheck);
        makeListsSafe(job_.source(), job_.target(), stopCheck);
        refuseWhatDoesNotFit(job_, record_);
        if (!record_.undo) refuseWhatCannotGoBack(job_, record_);
        settleCopies(manifest, job_.source(), job_.target());
        advance(manifest);
        store(JobState::kTurning, opposite(options_.direction));
        turnLists(manifest, job_.source(), job_.target(), stopCheck, job_.report);
        // The times, which tell from now on that nobody has changed a file.
        syncTrees(job_.held);
        options_.direction = record_.direction;
        takeTotals();
        store(JobState::kMoving, record_.direction);
    }

    void announce() const {
        job_.report.say("undoing",
                        {{"undoes", toWord(record_.begun())},
                         {"source", job_.target().path()},
                         {"target", job_.source().path()}},
                        fmt::format("Undoing the {}: what has arrived in {} goes back",
                                    toWord(record_.begun()), printable(job_.target().path())));
        if (!record_.replace) return;
        job_.report.warn("warning", {{"path", job_.target().path()}, {"code", "replaced"}},
                         "Files that were overwritten in " + printable(job_.target().path()) +
                             " do not come back.");
    }

    void advance(Manifest& manifest) {
        const bool replace = record_.replace;
        const auto list = [&](bool write) {
            return listWhatGoesOn(manifest, job_.source(), job_.target(), replace, write);
        };
        const std::vector<std::string> names = list(false);
        if (!names.empty()) advanceFiles(names, list);
        // Only when these have gone: on its way a file has the name of a link .N.
        if (!linksStandInTheWay(manifest, job_.source(), job_.target())) return;
        store(JobState::kAdvancing, options_.direction);
        Restored moved;
        moveLinks(
            manifest, job_.source(), job_.target(), [this] { job_.throwIfPaused(); }, moved);
        if (moved.complete()) return;
        reportRestored(moved, job_.report);
        throw JobEnd(
            ExitStatus::kFailed,
            fmt::format("Symbolic links with names that files need on their way back could "
                        "not be moved on. No file is lost; put that right and run {} "
                        "again.",
                        job_.command()));
    }

    void advanceFiles(const std::vector<std::string>& names,
                      const std::function<std::vector<std::string>(bool)>& list) {
        job_.report.say("advancing", {{"paths", names}},
                        "These go on first, because each has the name that a file needs on its way "
                        "back:" +
                            nameLines(names));
        store(JobState::kAdvancing, options_.direction);
        (void)list(true);  // the same names
        takeTotals();
        moveFiles(job_, record_, pending_, false);
    }

    void resume() {
        if (record_.state == JobState::kRestoring && !countPending(job_.source()).lists.empty()) {
            // A directory that somebody had taken away is back, with its list.
            record_.state = JobState::kMoving;
        }
        if (record_.state != JobState::kMoving) return;
        const auto stopCheck = [this] { job_.throwIfPaused(); };
        if (record_.metadata) {
            Manifest manifest = openManifest(job_.held, record_);
            makeDirectoriesAgain(manifest, job_.target(), stopCheck);
        }
        makeListsSafe(job_.source(), job_.target(), stopCheck);
        refuseWhatDoesNotFit(job_, record_);
        pending_ = countPending(job_.source());
    }

    /// Of what the lists hold now.
    void takeTotals() {
        pending_ = countPending(job_.source());
        record_.files = pending_.files;
        record_.bytes = pending_.bytes;
        record_.nameBytes = pending_.nameBytes;
    }

    void store(JobState state, Direction direction) {
        record_.undo = true;
        record_.state = state;
        record_.direction = direction;
        storeRecord(job_.held.plain, record_);
    }

    JobOptions options_;
    JobContext job_;  ///< looks into the options above
    JobRecord record_;
    Pending pending_;  ///< what its lists hold
};

}  // namespace

void undoJob(const JobContext& job, const std::optional<JobRecord>& found) {
    if (!found) {
        throw JobEnd(ExitStatus::kRefused,
                     fmt::format("There is no job to undo in {}. Nothing was touched.",
                                 printable(job.tree.plain)));
    }
    if (found->state != JobState::kPreparing) return Undo(job, *found).run();
    discardPreparation(job.held, *found);
    job.report.end(
        true, {{"result", "done"}, {"exit_status", 0}, {"files", 0}, {"bytes", 0}},
        fmt::format("Undone: the {} had not moved anything, and what was prepared for it "
                    "is gone.",
                    jobText(*found)));
}

}  // namespace host
