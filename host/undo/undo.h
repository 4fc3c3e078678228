#pragma once

#include <optional>

#include "job/job_context.h"

namespace host {

/// Moves back what an unfinished job has moved, or carries on with that, to where the job began.
/// `found` is the tree's record. The context's direction does not matter. Throws JobEnd when there
/// is nothing to undo, and when it is refused, stopped or fails.
void undoJob(const JobContext& job, const std::optional<JobRecord>& found);

}  // namespace host
