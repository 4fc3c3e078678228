#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "files/held_directory.h"
#include "manifest/metadata.h"
#include "say/report.h"

namespace host {

/// What was found when the metadata was put back; each with its path and what is wrong with it.
struct Restored {
    uint64_t files = 0;                ///< that are there, whole
    std::vector<std::string> missing;  ///< not in the target as they were in the source
    std::vector<std::string> refused;  ///< there, but something that they had was refused

    [[nodiscard]] bool complete() const { return missing.empty() && refused.empty(); }
};

/// Names what is missing and what is without its metadata.
void reportRestored(const Restored& restored, Report& report);

/// Writes into a Restored, for a job between these two roots.
class RestoreNotes {
  public:
    RestoreNotes(const files::HeldDirectory& source, const files::HeldDirectory& target,
                 Restored& restored)
        : source_(source), target_(target), restored_(restored) {}

    /// It is there.
    void count() { ++restored_.files; }
    /// It could not be opened, with this errno; where that says that it is of another kind,
    /// `otherKind` follows its path.
    void notThere(const Metadata& metadata, int error, const char* otherKind);
    /// It is not what it was: `what` follows its path.
    void missing(const Metadata& metadata, const std::string& what);
    /// Unless `what` is empty.
    void refused(const Metadata& metadata, const std::string& what);
    /// Of the twin in the source.
    void refusedInSource(const Metadata& metadata, const std::string& what);

  private:
    const files::HeldDirectory& source_;
    const files::HeldDirectory& target_;
    Restored& restored_;
};

}  // namespace host
