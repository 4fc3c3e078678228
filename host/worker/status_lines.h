#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

namespace host {

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

/// Reads one status line into `outcome`, or returns the bytes done that it reports.
std::optional<uint64_t> takeStatusLine(const std::string& line, WorkerOutcome& outcome);

}  // namespace host
