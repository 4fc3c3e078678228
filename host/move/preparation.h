#pragma once

#include <optional>

#include "job/job_context.h"
#include "lists/lists.h"

namespace host {

/// Looks at both trees. Throws JobEnd (refused) after naming what cannot be moved. While there is
/// no plain root this is the first of two looks, and what is only a warning is left to the second.
void refuseWhatCannotMove(const JobContext& job);

/// From a tree without a job to one whose files may be moved: everything a resume depends on is on
/// the disk, and the record says "moving". Throws JobEnd when the job is refused, stopped or fails;
/// then nothing has been moved. `abandoned` is the record of a preparation that was interrupted.
/// Fills in `record`, and returns what the lists hold.
[[nodiscard]] Pending prepareJob(const JobContext& job, const std::optional<JobRecord>& abandoned,
                                 JobRecord& record);

}  // namespace host
