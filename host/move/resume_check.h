#pragma once

#include "job/job_context.h"

namespace host {

/// What others have done to the trees since the job was stopped. The worker goes by names alone: it
/// would delete a source for something that is called like its copy, overwrite what has come into
/// the target, and not say a word about a file that has gone. Before an undo has turned a job, what
/// is still in the source only has to be as it was. Throws JobEnd (refused) after naming
/// what does not fit.
void refuseWhatDoesNotFit(const JobContext& job, const JobRecord& record);

}  // namespace host
