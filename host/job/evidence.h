#pragma once

#include "job/job_record.h"
#include "manifest/manifest.h"
#include "tree/held_tree.h"

namespace host {

/// The job's manifest, looked at from end to end. Throws JobEnd (refused) when it cannot be relied
/// on.
[[nodiscard]] Manifest openManifest(const HeldTree& tree, const JobRecord& record);

/// Takes back what was made before anything was moved, except for empty directories.
void discardPreparation(const HeldTree& tree, const JobRecord& record);

/// Makes everything last that was changed in both trees before; throws std::system_error where a
/// disk may not have taken it.
void syncTrees(const HeldTree& tree);

/// Removes manifest, mark and record, in this order, so that what is found after a kill is never
/// less than what is still to be done. To be called when nothing is left that they could help with.
void removeEvidence(const HeldTree& tree);

/// Gives both roots the time that the evidence in them has changed.
void putBackRootTimes(const HeldTree& tree, const JobRecord& record);

}  // namespace host
