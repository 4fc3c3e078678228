#pragma once

#include "job/job_context.h"
#include "lists/lists.h"

namespace host {

/// Runs the worker until no list is left; `before` is what the lists hold. Throws JobEnd when it
/// stops before.
void moveFiles(const JobContext& job, JobRecord& record, const Pending& before, bool resumed);

}  // namespace host
