#pragma once

#include "job/job_record.h"
#include "lists/lists.h"
#include "say/progress.h"

namespace host {

/// Where a job stands that has `pending` still to do.
[[nodiscard]] Progress progressOf(const JobRecord& record, const Pending& pending);

}  // namespace host
