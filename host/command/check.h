#pragma once

#include "job/job_options.h"
#include "say/report.h"
#include "tree/roots.h"

namespace host {

/// `vaultctl check`: only looks. True when the job could start.
[[nodiscard]] bool checkJob(const Tree& tree, const JobOptions& options, Report& report);

}  // namespace host
