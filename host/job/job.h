#pragma once

#include "job/job_options.h"
#include "say/report.h"
#include "tree/roots.h"

namespace host {

/// Moves a whole tree, or carries on with a move that was stopped. Returns when it is done;
/// throws JobEnd otherwise.
void runJob(const Tree& tree, const JobOptions& options, Report& report);

}  // namespace host
