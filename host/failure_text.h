#pragma once

#include <string>

#include "process_files.h"
#include "worker_process.h"

namespace host {

/// The sentence for a scan that failed; nothing had been moved. `again` is the command.
[[nodiscard]] std::string explainScan(const WorkerOutcome& outcome, const std::string& source,
                                      const std::string& again);

/// The sentence for a move that stopped with lists left: what happened, that nothing was lost,
/// what to do.
[[nodiscard]] std::string explainMove(const WorkerOutcome& outcome, const std::string& source,
                                      const std::string& target, const Pending& left,
                                      const std::string& again);

}  // namespace host
