#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "files/held_directory.h"
#include "say/report.h"
#include "tree/manifest.h"

namespace host {

/// What was found when the metadata was put back; each with its path and what is wrong with it.
struct Restored {
    uint64_t files = 0;                ///< that are there, whole
    std::vector<std::string> missing;  ///< not in the target as they were in the source
    std::vector<std::string> refused;  ///< there, but an owner, a mode or a time was refused

    [[nodiscard]] bool complete() const { return missing.empty() && refused.empty(); }
};

/// Puts back what the manifest says, as far as it can be. `between` is called for each record and
/// may throw. Throws std::system_error when the manifest cannot be read.
[[nodiscard]] Restored restoreMetadata(Manifest& manifest, const files::HeldDirectory& source,
                                       const files::HeldDirectory& target,
                                       const std::function<void()>& between);

/// Looks what restoreMetadata() would still have to do, or could not do, and changes nothing:
/// `refused` names what is not as the manifest says.
[[nodiscard]] Restored compareMetadata(Manifest& manifest, const files::HeldDirectory& source,
                                       const files::HeldDirectory& target);

/// Names what is missing and what is without its metadata.
void reportRestored(const Restored& restored, Report& report);

}  // namespace host
