#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "files/held_directory.h"
#include "look/findings.h"
#include "look/trial_folder.h"
#include "manifest/metadata.h"

namespace host {

/// Finds out before a move what the target does not take of what comes with the files: attributes
/// and symbolic links. Each set of attributes that differs from those before it is put on a file or
/// directory in a folder below the target's root, and read back.
class TargetTrial {
  public:
    /// `drop`: attributes that are not taken are to be left behind. The roots outlive this object.
    TargetTrial(const files::HeldDirectory& source, const files::HeldDirectory& target, bool drop)
        : source_(source), target_(target), drop_(drop) {}

    /// Tries what it describes, and takes out of it what is to be left behind. Throws
    /// std::system_error.
    void judge(Metadata& metadata);

    /// What was found; the folder is gone then. Throws std::system_error.
    [[nodiscard]] Preflight finish();

  private:
    using Tried = std::pair<bool, Attributes>;  ///< of a directory or file

    [[nodiscard]] const TrialFolder& folder();
    [[nodiscard]] bool takes(const std::string& linkText);
    [[nodiscard]] const std::vector<std::string>& refusedOf(const Metadata& metadata);
    [[nodiscard]] std::vector<std::string> tryOn(const Tried& tried);

    const files::HeldDirectory& source_;
    const files::HeldDirectory& target_;
    bool drop_;
    std::optional<TrialFolder> folder_;
    std::map<Tried, std::vector<std::string>> tried_;  ///< to the names of those not taken
    std::optional<size_t> longestTaken_;               ///< text of a link, in bytes
    Preflight found_;
};

}  // namespace host
