#pragma once

#include <string>

#include "preflight.h"
#include "report.h"
#include "tree.h"

namespace host {

struct JobOptions {
    Direction direction = Direction::kEncrypt;
    std::string worker;  ///< path of the executable
    PreflightOptions preflight;
};

/// Moves a whole tree, or carries on with a move that was stopped. Returns when it is done;
/// throws JobEnd otherwise.
void runJob(const Tree& tree, const JobOptions& options, Report& report);

/// `vaultctl check`: only looks. True when the job could start.
[[nodiscard]] bool checkJob(const Tree& tree, const JobOptions& options, Report& report);

/// `vaultctl status`: no job, or which, how far, and what to do next.
void showStatus(const Tree& tree, Report& report);

/// Every finding with its name and reason.
void reportFindings(const Preflight& preflight, Report& report);

/// "`vaultctl encrypt DIR`", the command that carries on.
[[nodiscard]] std::string commandFor(Direction direction, const Tree& tree);

}  // namespace host
