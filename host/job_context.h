#pragma once

#include <functional>

#include "job.h"
#include "job_record.h"
#include "stop_signals.h"
#include "tree.h"
#include "worker_process.h"

namespace host {

/// What every step of one job works with. The referenced objects outlive it.
struct JobContext {
    const Tree& tree;
    const JobOptions& options;
    const TreeLock& lock;
    StopSignals& stops;
    Report& report;

    [[nodiscard]] const std::string& source() const { return tree.source(options.direction); }
    [[nodiscard]] const std::string& target() const { return tree.target(options.direction); }
    [[nodiscard]] std::string command() const { return commandFor(options.direction, tree); }

    /// Runs the worker to its end; its number is noted in `record`, which is stored.
    [[nodiscard]] WorkerOutcome callWorker(Action action, JobRecord& record, uint64_t base,
                                           const std::function<void(uint64_t)>& progress) const;
};

}  // namespace host
