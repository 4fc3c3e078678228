#include "job_context.h"

#include <system_error>

namespace host {
namespace {

void noteWorker(const Tree& tree, JobRecord& record, pid_t worker) {
    record.worker = worker;
    try {
        storeRecord(tree, record);
    } catch (const std::system_error&) {
        // The number is only for messages, and the worker is running: go on with the old one.
    }
}

}  // namespace

WorkerOutcome JobContext::callWorker(Action action, JobRecord& record, uint64_t base,
                                     const std::function<void(uint64_t)>& progress) const {
    const WorkerCall call{.executable = options.worker,
                          .action = action,
                          .root = action == Action::kScan ? source() : tree.plain,
                          .baseSize = base,
                          .totalSize = record.bytes,
                          .lock = lock.inherited()};
    const auto stopping = [this](bool atOnce) {
        report.say("stopping", {{"at_once", atOnce}},
                   atOnce ? "Ending the worker at once."
                          : "Pausing; once more ends the worker at once, which is safe.");
    };
    return runWorker(call, stops,
                     {.started = [&](pid_t worker) { noteWorker(tree, record, worker); },
                      .progress = progress,
                      .log = [this](const std::string& line) { report.workerLog(line); },
                      .stopping = stopping});
}

}  // namespace host
