#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "stop_signals.h"

namespace host {

/// What the worker is asked for; the numbers of docs/protocol.md.
enum class Action { kScan = 0, kEncrypt = 1, kDecrypt = 2 };

struct WorkerCall {
    std::string executable;
    Action action = Action::kScan;
    std::string root;
    uint64_t baseSize = 0;
    uint64_t totalSize = 0;
    int lock = -1;  ///< stays open in the worker, which makes it a holder of the lock
};

struct SpaceNeed {
    uint64_t needed = 0;  ///< bytes
    uint64_t free = 0;    ///< bytes
};

/// How a run of the worker went, from its status lines, its log and its end.
struct WorkerOutcome {
    bool succeeded = false;  ///< exit status 0
    int signal = 0;          ///< that ended it, or 0
    bool stopAsked = false;  ///< by us, on a signal
    std::optional<uint64_t> totalSize;
    std::optional<SpaceNeed> noSpace;
    std::optional<int> transferError;  ///< negated errno
    std::deque<std::string> errors;    ///< the last error lines of its log
};

struct WorkerEvents {
    std::function<void(pid_t)> started;
    std::function<void(uint64_t done)> progress;  ///< bytes of the whole job
    std::function<void(const std::string&)> log;  ///< one line of its log or status pipe
    std::function<void(bool atOnce)> stopping;    ///< a stop was passed on
};

/// Starts the worker in a process group of its own (Ctrl-C in the terminal reaches only the host)
/// and waits for its end. The first stop sends it "pause", the second kills it, which it is made
/// to survive. Throws std::system_error when it cannot be started.
[[nodiscard]] WorkerOutcome runWorker(const WorkerCall& call, StopSignals& stops,
                                      const WorkerEvents& events);

/// Reads one status line into `outcome`, or returns the bytes done that it reports.
std::optional<uint64_t> takeStatusLine(const std::string& line, WorkerOutcome& outcome);

}  // namespace host
