#include "job.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "durable_file.h"
#include "failure_text.h"
#include "job_context.h"
#include "job_end.h"
#include "job_record.h"
#include "manifest.h"
#include "names.h"
#include "preparation.h"
#include "process_files.h"
#include "tree_walk.h"

namespace host {
namespace {

/// Why a kill at any instant is recoverable. Until the record says "moving" nothing has left the
/// source, and whatever there is (directories in the target, lists, a manifest) is thrown away or
/// made again. Before it says so, everything a resume depends on is on the disk: the directories,
/// the manifest, the lists in a safe order, the mark. While it says so the lists are never written
/// anew by a scan, since the worker's place in them is what finds a file that is under way. It
/// says "restoring" only when no list is left. The manifest goes before the mark and the mark
/// before the record, so what is found after a kill is never less than what is still to be done.
class Job {
  public:
    explicit Job(const JobContext& context) : job_(context) {}

    void run() {
        const std::optional<JobRecord> found = loadRecord(job_.tree);
        if (found && found->state != JobState::kPreparing) {
            resume(*found);
        } else {
            record_ = prepareJob(job_, found);
        }
        if (record_.state == JobState::kMoving) move();
        finish();
    }

  private:
    void resume(const JobRecord& record) {
        if (record.direction != job_.options.direction) {
            throw JobEnd(
                ExitStatus::kRefused,
                fmt::format("An unfinished {} holds this tree. Nothing was touched; "
                            "finish it with {} first.",
                            toWord(record.direction), commandFor(record.direction, job_.tree)));
        }
        record_ = record;
        const bool markNeeded =
            record.state == JobState::kMoving || readIfThere(job_.tree.manifestPath()).has_value();
        if (markNeeded && (!markFits(job_.tree, record) ||
                           (!record.plain && !isOnEcryptfs(job_.tree.encrypted)))) {
            throw JobEnd(ExitStatus::kRefused,
                         job_.tree.encrypted +
                             " is not what this move began with. Nothing was touched; mount the "
                             "eCryptfs directory there with its own key and run " +
                             job_.command() + " again.");
        }
        if (record.state == JobState::kMoving) {
            // A directory that was removed meanwhile would be passed over.
            makeTargetDirectories(job_.tree, job_.options.direction, [] {});
            makeListsSafe(job_.tree, job_.options.direction, [] {});
        }
        resumed_ = true;
    }

    void move() {
        const Pending before = countPending(job_.source());
        const uint64_t base = record_.bytes - std::min(record_.bytes, before.bytes);
        announce(before, base);
        ProgressMeter meter(base, record_.bytes, ProgressMeter::Clock::now());
        const std::string title(toWord(job_.options.direction));
        const auto show = [&](uint64_t done) {
            job_.report.progress(title, meter.update(done, ProgressMeter::Clock::now()));
        };
        show(base);
        const Action action =
            job_.options.direction == Direction::kEncrypt ? Action::kEncrypt : Action::kDecrypt;
        const WorkerOutcome outcome = job_.callWorker(action, record_, base, show);
        const Pending after = countPending(job_.source());
        // A stop that came after the last file has nothing left to stop.
        if (after.lists.empty()) show(record_.bytes);
        job_.report.endProgress();
        if (after.lists.empty()) return;
        if (outcome.stopAsked && !outcome.noSpace && !outcome.transferError) {
            throw JobEnd(ExitStatus::kPaused,
                         fmt::format("Paused with {} of {} files still to move; none is lost. "
                                     "{} carries on.",
                                     after.files, record_.files, job_.command()));
        }
        for (const std::string& line : outcome.errors) {
            job_.report.problem("worker-error", {{"line", line}}, line);
        }
        throw JobEnd(ExitStatus::kFailed,
                     explainMove(outcome, job_.source(), job_.target(), after, job_.command()));
    }

    void announce(const Pending& pending, uint64_t base) {
        if (record_.plain) {
            job_.report.problem("warning", {{"path", job_.tree.encrypted}, {"code", "plain"}},
                                job_.tree.encrypted +
                                    " is not on an eCryptfs mount: the files are moved, "
                                    "but nothing will be encrypted.");
        }
        const nlohmann::json fields = {{"job", toWord(job_.options.direction)},
                                       {"source", job_.source()},
                                       {"target", job_.target()},
                                       {"resumed", resumed_},
                                       {"files", record_.files},
                                       {"bytes", record_.bytes},
                                       {"files_left", pending.files},
                                       {"bytes_done", base}};
        job_.report.say(
            "start", fields,
            resumed_
                ? fmt::format("Carrying on: {} of {} files ({}) still to move to {}", pending.files,
                              record_.files, formatBytes(pending.bytes), printable(job_.target()))
                : fmt::format("Moving {} files ({}) to {}", pending.files,
                              formatBytes(pending.bytes), printable(job_.target())));
    }

    void finish() {
        record_.state = JobState::kRestoring;
        storeRecord(job_.tree, record_);
        const Restored restored = restoreMetadata(job_.tree, job_.options.direction);
        const std::vector<std::string> left = regularFilesIn(job_.source());
        // Modes and times must be on the disk before the manifest goes. Of everything, because a
        // sync of a stacked file system alone does not reach the one below it.
        sync();
        removeDurably(job_.tree.manifestPath());
        removeDurably(job_.tree.markPath());
        removeDurably(job_.tree.recordPath());
        // The records lay in the roots, whose times their removal has just changed.
        for (const std::string& root : {job_.source(), job_.target()}) {
            if (restored.root.directory) (void)putBackTime(restored.root, root);
        }
        nameThose("left", left, "still in the source:");
        nameThose("missing", restored.missing, "not in the target as they were at the start:");
        nameThose("metadata", restored.refused,
                  "owner, permissions or time could not be put back:");
        if (!left.empty() || !restored.missing.empty() || !restored.refused.empty()) {
            throw JobEnd(ExitStatus::kFailed,
                         fmt::format("The move is over, but not everything is as it should be: "
                                     "look at the files named above. Nothing that was moved is "
                                     "lost; {} moves what is still in {}.",
                                     job_.command(), printable(job_.source())));
        }
        job_.report.say(
            "end",
            {{"result", "done"},
             {"exit_status", 0},
             {"files", restored.files},
             {"bytes", record_.bytes}},
            fmt::format("Done: {} files ({}) are in {}, with the owners, permissions and "
                        "times they had.",
                        restored.files, formatBytes(record_.bytes), printable(job_.target())));
    }

    void nameThose(const std::string& event, const std::vector<std::string>& paths,
                   const std::string& what) {
        if (!paths.empty()) {
            job_.report.problem(event, {{"paths", paths}},
                                fmt::format("{} {}{}", paths.size(), what, nameLines(paths)));
        }
    }

    static std::vector<std::string> regularFilesIn(const std::string& root) {
        std::vector<std::string> files;
        walkTree(root, [&](const std::string& relative, const std::vector<Entry>& entries) {
            for (const Entry& entry : entries) {
                if (entry.type == DT_REG && !entry.name.starts_with(names::kOwnPrefix)) {
                    files.push_back(root + relative + "/" + entry.name);
                }
            }
        });
        return files;
    }

    JobContext job_;
    JobRecord record_;
    bool resumed_ = false;
};

[[noreturn]] void refuseHeld(const Tree& tree, Holder holder) {
    const std::optional<JobRecord> record = loadRecord(tree);
    const std::string job = record ? std::string(toWord(record->direction)) : "job";
    if (holder == Holder::kHost) {
        throw JobEnd(ExitStatus::kRefused,
                     fmt::format("Another vaultctl is at work on this tree ({}). Nothing was "
                                 "touched; wait for it, or pause it with Ctrl-C.",
                                 job));
    }
    throw JobEnd(
        ExitStatus::kRefused,
        fmt::format("The worker of an {} whose vaultctl has ended is still moving files{}. Nothing "
                    "was touched; wait until it has ended (vaultctl status shows how far it is), "
                    "then run this again.",
                    job, record ? fmt::format(" (process {})", record->worker) : ""));
}

/// The way back into a directory that was removed meanwhile.
void makePlainRoot(const Tree& tree, const JobOptions& options) {
    if (options.direction == Direction::kDecrypt &&
        (options.preflight.allowPlain || isOnEcryptfs(tree.encrypted))) {
        makeDirectoryLike(tree.encrypted, tree.plain);
    }
}

}  // namespace

std::string commandFor(Direction direction, const Tree& tree) {
    return fmt::format("`vaultctl {} {}`", toWord(direction), printable(tree.plain));
}

void runJob(const Tree& tree, const JobOptions& options, Report& report) {
    StopSignals stops;
    if (!isDirectory(tree.plain) && isDirectory(tree.encrypted)) makePlainRoot(tree, options);
    if (!isDirectory(tree.plain)) {
        throw JobEnd(ExitStatus::kRefused, tree.plain + " is no directory. Nothing was touched.");
    }
    Holder holder = lookAtLockPatiently(tree);
    const TreeLock lock(tree, holder);
    if (holder != Holder::kNobody) refuseHeld(tree, holder);
    try {
        Job({tree, options, lock, stops, report}).run();
    } catch (const std::system_error& error) {
        throw JobEnd(
            ExitStatus::kFailed,
            fmt::format("It stopped: {}. No file is lost; put that right and run {} again.",
                        error.what(), commandFor(options.direction, tree)));
    }
}

}  // namespace host
