#pragma once

#include <optional>
#include <string>

#include "job/job_record.h"
#include "tree/held_tree.h"

namespace host {

/// What both roots say of an unfinished job, before anything is done or thrown away: a directory
/// may have been moved away, made anew, mounted or unmounted since the job was stopped.
struct Pair {
    std::optional<JobRecord> record;
    std::string obstacle;  ///< why nothing may be done with these two, as sentences; else empty
};

/// Throws JobEnd (refused) when the roots are one directory or one lies inside the other. For the
/// time before they are locked.
void refuseOverlap(const HeldTree& tree);

/// Throws JobEnd (refused) when one of the roots belongs to another pair, whose job is unfinished.
void refuseOtherPair(const HeldTree& tree);

/// To be asked while the roots are locked or nobody works on them: a job that begins or ends shows
/// itself piece by piece. Throws RecordDamaged, and std::system_error for a root that cannot be
/// read. `givenWorker` is what a named command says of the worker, or empty.
[[nodiscard]] Pair lookAtPair(const HeldTree& tree, const std::string& givenWorker);

}  // namespace host
