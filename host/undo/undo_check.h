#pragma once

#include "job/job_context.h"
#include "job/job_record.h"

namespace host {

/// Whether what has arrived can be moved back: what was possible on the way there need not be, as a
/// name may be too long for the tree that it came from with what it needs on its way. To be asked
/// before anything is turned, while all lists are there. Throws JobEnd (refused) after naming what
/// cannot.
void refuseWhatCannotGoBack(const JobContext& job, const JobRecord& record);

}  // namespace host
