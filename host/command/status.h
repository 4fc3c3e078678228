#pragma once

#include <string>

#include "say/report.h"
#include "tree/roots.h"

namespace host {

/// `vaultctl status`: no job, or which, how far, and what to do next, with the worker that the
/// person named or with none.
void showStatus(const Tree& tree, const std::string& givenWorker, Report& report);

}  // namespace host
