#pragma once

#include <functional>

#include "client/worker_client.h"
#include "job/job_options.h"
#include "job/job_record.h"
#include "job/stop_signals.h"
#include "say/report.h"
#include "tree/held_tree.h"
#include "tree/lock.h"
#include "tree/roots.h"

namespace host {

/// What every step of one job works with. The referenced objects outlive it.
struct JobContext {
    const Tree& tree;
    const HeldTree& held;
    const JobOptions& options;
    const TreeLock& lock;
    StopSignals& stops;
    Report& report;

    [[nodiscard]] const files::HeldDirectory& source() const {
        return held.source(options.direction);
    }
    [[nodiscard]] const files::HeldDirectory& target() const {
        return held.target(options.direction);
    }
    [[nodiscard]] std::string command() const;
    /// Throws JobEnd (paused) when a stop was asked for; for the time before anything is moved.
    void throwIfStopped() const;
    /// The same for a job that is resumed, between two files.
    void throwIfPaused() const;

    /// Runs the worker to its end; its number is noted in `record`, which is stored.
    [[nodiscard]] vaultmover::WorkerOutcome callWorker(
        vaultmover::Action action, JobRecord& record, uint64_t base,
        const std::function<void(uint64_t)>& progress) const;
};

}  // namespace host
