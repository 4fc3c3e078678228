#pragma once

#include <sys/types.h>

#include <csignal>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/// Runs the worker VaultMover for a host: starts it, reads its status lines and its log, passes on
/// pauses, and tells how it ended. docs/protocol.md is the contract behind it, and what a host must
/// do beside: lock the trees, never scan between a stop and the resume, look at what is left.
///
/// For one thread. A process that uses it ignores SIGPIPE and does not ignore SIGCHLD.
namespace vaultmover {

/// The worker's actions, by their numbers.
enum class Action { kScan = 0, kEncrypt = 1, kDecrypt = 2 };

/// One start of the worker.
struct WorkerCall {
    std::string executable;  ///< path
    Action action = Action::kScan;
    std::string root;            ///< of the tree to scan, or of the plain tree
    uint64_t baseSize = 0;       ///< bytes that earlier runs of the job have moved
    uint64_t totalSize = 0;      ///< bytes of the whole job, from the scan
    std::vector<int> inherited;  ///< descriptors that stay open in the worker, locks for instance
    sigset_t signalMask{};       ///< the worker's
};

/// "error nospace": what a scan, or the next file, would need.
struct SpaceNeed {
    uint64_t needed = 0;  ///< bytes
    uint64_t free = 0;    ///< bytes
};

/// How a run went, from the worker's status lines, its log and its end.
struct WorkerOutcome {
    bool succeeded = false;             ///< exit status 0; look at the trees all the same
    int signal = 0;                     ///< that ended it, or 0
    bool stopAsked = false;             ///< by pause() or kill()
    std::optional<uint64_t> totalSize;  ///< bytes; of a scan
    std::optional<SpaceNeed> noSpace;
    std::optional<int> transferError;  ///< negated errno
    std::deque<std::string> errors;    ///< the last error lines of its log
};

/// A running worker, for those who are called back while it runs.
class WorkerControl {
  public:
    WorkerControl(pid_t worker, int commands) : worker_(worker), commands_(commands) {}
    /// Asks for a pause: the worker ends at the next chunk, and the file that is under way stays
    /// where it is.
    void pause();
    /// Ends it at once, which it is made to survive.
    void kill();
    [[nodiscard]] bool stopAsked() const { return stopAsked_; }

  private:
    pid_t worker_;
    int commands_;  ///< the command pipe's write end
    bool stopAsked_ = false;
};

/// What the host is told while the worker runs. Each may be empty, and may throw: the worker is
/// then left alone, and goes on as one whose host has died.
struct WorkerEvents {
    std::function<void(pid_t)> started;
    std::function<void(uint64_t done)> progress;         ///< bytes of the whole job
    std::function<void(const std::string&)> statusLine;  ///< each, also those that are understood
    std::function<void(const std::string&)> logLine;
    /// When `descriptor` can be read, if there is one: a signalfd for instance.
    std::function<void(WorkerControl&)> ready;
    int descriptor = -1;
};

/// Starts the worker in a process group of its own, so that Ctrl-C in the terminal reaches only the
/// host, and waits for its end. Its standard input is empty, its outputs are the log. Throws
/// std::system_error when it cannot be started or waited for.
[[nodiscard]] WorkerOutcome runWorker(const WorkerCall& call, const WorkerEvents& events);

}  // namespace vaultmover
