#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "worker/status_lines.h"
#include "worker/stop_signals.h"

namespace host {

/// What the worker is asked for; the numbers of docs/protocol.md.
enum class Action { kScan = 0, kEncrypt = 1, kDecrypt = 2 };

struct WorkerCall {
    std::string executable;
    Action action = Action::kScan;
    std::string root;
    uint64_t baseSize = 0;
    uint64_t totalSize = 0;
    std::vector<int> locks;  ///< stay open in the worker, which makes it a holder of them
};

struct WorkerEvents {
    std::function<void(pid_t)> started;
    std::function<void(uint64_t done)> progress;  ///< bytes of the whole job
    std::function<void(const std::string&)> log;  ///< one line of its log or status pipe
    std::function<void(bool atOnce)> stopping;    ///< a stop was passed on
    std::function<void()> suspended;              ///< Ctrl-Z stops the host, not the worker
};

/// Starts the worker in a process group of its own (Ctrl-C in the terminal reaches only the host)
/// and waits for its end. The first stop sends it "pause", the second kills it, which it is made
/// to survive. Ctrl-Z (SIGTSTP) stops the host alone, since a stop would cut a transfer short.
/// Throws std::system_error when it cannot be started.
[[nodiscard]] WorkerOutcome runWorker(const WorkerCall& call, StopSignals& stops,
                                      const WorkerEvents& events);

}  // namespace host
