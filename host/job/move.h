#pragma once

#include "job/job_context.h"

namespace host {

/// Runs the worker until no list is left. Throws JobEnd when it stops before.
void moveFiles(const JobContext& job, JobRecord& record, bool resumed);

}  // namespace host
