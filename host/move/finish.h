#pragma once

#include "job/job_context.h"

namespace host {

/// From the last list to the last trace: metadata put back, records removed, and said what came of
/// it. Throws JobEnd (failed) when something is not as it should be.
void finishJob(const JobContext& job, JobRecord& record);

}  // namespace host
