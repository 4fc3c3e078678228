#pragma once

#include <string>

#include "job/job_record.h"
#include "lists/lists.h"
#include "say/progress.h"
#include "tree/roots.h"

namespace host {

/// Where a job that was begun stands, from the record and from what the lists still hold.
struct Standing {
    JobRecord record;
    Pending pending;
    Progress progress;
};

[[nodiscard]] Standing standingOf(const Tree& tree, const JobRecord& record);

/// In a sentence.
[[nodiscard]] std::string describeStanding(const Standing& standing);

}  // namespace host
