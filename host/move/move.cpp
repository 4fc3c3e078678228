#include "move/move.h"

#include <fmt/format.h>

#include "end/job_end.h"
#include "job/job_progress.h"
#include "lists/list_queue.h"
#include "say/failure_text.h"
#include "say/text.h"

using vaultmover::Action;
using vaultmover::WorkerOutcome;

namespace host {
namespace {

void announce(const JobContext& job, const JobRecord& record, bool resumed, const Pending& pending,
              const Progress& progress) {
    const bool back = record.undo && record.state == JobState::kMoving;
    if (record.plain && !back) {
        job.report.warn("warning", {{"path", job.tree.encrypted}, {"code", "plain"}},
                        printable(job.tree.encrypted) +
                            " is not on an eCryptfs mount: the files are moved, but nothing will "
                            "be encrypted.");
    }
    const nlohmann::json fields = {
        {"job", job.options.word()},     {"source", job.source().path()},
        {"target", job.target().path()}, {"resumed", resumed},
        {"files", record.files},         {"bytes", record.size()},
        {"files_left", pending.files},   {"bytes_done", progress.sizeDone}};
    const std::string target = printable(job.target().path());
    job.report.say(
        "start", fields,
        resumed ? fmt::format("Carrying on: {} of {} ({}) still to move to {}", pending.files,
                              counted(record.files, "file"), formatBytes(pending.size()), target)
                : fmt::format("Moving {} ({}){} to {}", counted(pending.files, "file"),
                              formatBytes(pending.size()), back ? " back" : "", target));
}

}  // namespace

void moveFiles(const JobContext& job, JobRecord& record, const Pending& before, bool resumed) {
    const Progress begun = progressOf(record, before);
    announce(job, record, resumed, before, begun);
    ListQueue queue(job.held.plain, job.source(), before.lists);
    ProgressMeter meter(begun, ProgressMeter::Clock::now());
    const std::string title = job.options.word();
    const auto show = [&](uint64_t done) {
        if (!job.report.progressDue(done >= record.bytes)) return;
        const uint64_t files = begun.filesDone + queue.filesDone();
        job.report.progress(title, meter.update(done, files, ProgressMeter::Clock::now()));
    };
    // 100% is shown when nothing is left, not when the last byte is copied.
    const auto showPart = [&](uint64_t done) {
        if (done < record.bytes) show(done);
    };
    showPart(begun.done);
    const Action action =
        job.options.direction == Direction::kEncrypt ? Action::kEncrypt : Action::kDecrypt;
    const WorkerOutcome outcome = job.callWorker(action, record, begun.done, showPart);
    const Pending after = countPending(job.source());
    // A stop that came after the last file has nothing left to stop.
    if (after.lists.empty()) show(record.bytes);
    job.report.endProgress();
    if (after.lists.empty()) return;
    if (outcome.stopAsked && !outcome.noSpace && !outcome.transferError) {
        throw JobEnd(ExitStatus::kPaused,
                     fmt::format("Paused with {} of {} still to move; none is lost. "
                                 "{} carries on.",
                                 after.files, counted(record.files, "file"), job.command()));
    }
    for (const std::string& line : outcome.errors) {
        job.report.problem("worker-error", {{"line", line}}, line);
    }
    throw JobEnd(ExitStatus::kFailed, explainMove(outcome, job.source(), job.target(), after,
                                                  queue.nextFile(), job.command()));
}

}  // namespace host
