#pragma once

#include <string>
#include <string_view>

#include "files/held_directory.h"
#include "tree/names.h"

namespace host {

/// A folder in which is tried what a file system takes. It follows the same rules as the directory
/// it is made in, and is gone when it is destroyed. The directory outlives it.
class TrialFolder {
  public:
    /// Removes what an earlier one has left, and makes the folder. Throws std::system_error.
    explicit TrialFolder(const files::HeldDirectory& directory);
    TrialFolder(const TrialFolder&) = delete;
    TrialFolder& operator=(const TrialFolder&) = delete;
    ~TrialFolder();

    /// The folder itself. What is made in it are empty files and directories, and links.
    [[nodiscard]] const files::HeldDirectory& held() const { return folder_; }

    /// Throws std::system_error: what is ours must not stay there unsaid.
    void finish() const;

  private:
    void remove() const;

    const std::string name_{names::kNameTrial};
    const files::HeldDirectory& directory_;
    files::HeldDirectory folder_;
};

}  // namespace host
