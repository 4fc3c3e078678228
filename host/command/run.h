#pragma once

#include "job/job_options.h"
#include "say/report.h"
#include "tree/roots.h"

namespace host {

/// Moves a whole tree, or carries on with a move that was stopped; or takes such a move back, or
/// carries on with that. Returns when it is done; throws JobEnd otherwise.
void runJob(const Tree& tree, const JobOptions& options, Report& report);

}  // namespace host
