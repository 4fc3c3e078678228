#pragma once

#include <string>

#include "client/worker_client.h"
#include "files/held_directory.h"
#include "lists/lists.h"

namespace host {

/// The sentence for a scan that failed; nothing had been moved. `again` is the command.
[[nodiscard]] std::string explainScan(const vaultmover::WorkerOutcome& outcome,
                                      const std::string& source, const std::string& again);

/// The sentence for a move that stopped with lists left: what happened, that nothing was lost,
/// what to do. `next` is the path of the file that comes next, or empty.
[[nodiscard]] std::string explainMove(const vaultmover::WorkerOutcome& outcome,
                                      const files::HeldDirectory& source,
                                      const files::HeldDirectory& target, const Pending& left,
                                      const std::string& next, const std::string& again);

}  // namespace host
