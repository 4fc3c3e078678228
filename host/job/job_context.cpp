#include "job/job_context.h"

#include <system_error>

#include "end/job_end.h"

using vaultmover::Action;
using vaultmover::WorkerCall;
using vaultmover::WorkerControl;
using vaultmover::WorkerOutcome;

namespace host {
namespace {

void noteWorker(const files::HeldDirectory& plain, JobRecord& record, pid_t worker) {
    record.worker = worker;
    try {
        storeRecord(plain, record);
    } catch (const std::system_error&) {
        // The number is only for messages, and the worker is running: go on with the old one.
    }
}

}  // namespace

std::string JobContext::command() const { return options.command(tree.plain); }

void JobContext::throwIfStopped() const {
    if (stops.take()) {
        throw JobEnd(ExitStatus::kPaused,
                     "Stopped before anything was moved; " + command() + " begins again.");
    }
}

void JobContext::throwIfPaused() const {
    if (!stops.take()) return;
    throw JobEnd(ExitStatus::kPaused, "Paused before the next file; " + command() + " carries on.");
}

WorkerOutcome JobContext::callWorker(Action action, JobRecord& record, uint64_t base,
                                     const std::function<void(uint64_t)>& progress) const {
    const WorkerCall call{.executable = options.worker,
                          .action = action,
                          .root = action == Action::kScan ? source().path() : tree.plain,
                          .baseSize = base,
                          .totalSize = record.bytes,
                          .inherited = lock.inherited(),
                          .signalMask = stops.maskBefore()};
    const auto passOnStop = [this](WorkerControl& worker) {
        if (!stops.take()) return;
        const bool atOnce = worker.stopAsked();
        if (atOnce) {
            worker.kill();
        } else {
            worker.pause();
        }
        report.say("stopping", {{"at_once", atOnce}},
                   atOnce ? "Ending the worker at once."
                          : "Pausing; once more ends the worker at once, which is safe.");
    };
    return runWorker(
        call, {.started = [&](pid_t worker) { noteWorker(held.plain, record, worker); },
               .progress = progress,
               .statusLine = [this](const auto& line) { report.workerLog("status pipe: " + line); },
               .logLine = [this](const auto& line) { report.workerLog(line); },
               .ready = passOnStop,
               .descriptor = stops.descriptor()});
}

}  // namespace host
