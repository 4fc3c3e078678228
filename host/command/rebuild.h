#pragma once

#include <time.h>

#include <cstdint>
#include <string>
#include <vector>

#include "job/job_record.h"
#include "tree/held_tree.h"

namespace host {

/// What the manifest and the two trees say of a job.
struct Rebuilt {
    uint64_t files = 0;            ///< that the manifest names
    uint64_t bytes = 0;            ///< their sizes and name lengths
    uint64_t nameBytes = 0;        ///< the name lengths in that
    uint64_t moved = 0;            ///< not in the source any more
    uint64_t movedButMissing = 0;  ///< of these, not in the target either
    timespec rootTime{};           ///< of the source's root at the beginning
};

/// Looks, and changes nothing. The manifest must be whole.
[[nodiscard]] Rebuilt surveyForRepair(const HeldTree& tree, const JobRecord& record);

/// Gives every directory a list of what the manifest names and has not arrived.
void rebuildLists(const HeldTree& tree, const JobRecord& record);

/// Takes changed files into the manifest as they are now, and those that have gone out of it.
void rewriteManifest(const HeldTree& tree, const JobRecord& record);

/// Without a manifest: replaces damaged lists by the files that are in the source directory.
/// Returns the names of files in the target that may be copies which the lost lists named.
[[nodiscard]] std::vector<std::string> rebuildListsFromSource(const HeldTree& tree,
                                                              const JobRecord& record);

}  // namespace host
