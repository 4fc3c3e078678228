#pragma once

#include <sys/types.h>

#include <string>
#include <unordered_map>

#include "tree/metadata.h"

namespace host {

/// Who, beside root, could put a file of his own in the place of another while a tree is moved: the
/// owners of the directories above it, and whoever may write there.
class Reach {
  public:
    /// To be told of each directory, before what is in it.
    void note(const Metadata& directory);
    /// Whether only root and the file's own owner could. If not, the file must not get set-ID bits:
    /// they would lend its owner's rights to what somebody else has put there.
    [[nodiscard]] bool onlyOwner(const Metadata& file) const;

  private:
    static constexpr uid_t kRoot = 0;
    static constexpr uid_t kSeveral = static_cast<uid_t>(-1);

    /// Of the directory in which `relative` is.
    [[nodiscard]] uid_t above(const std::string& relative) const;

    std::unordered_map<std::string, uid_t> users_;  ///< by directory; those of root are left out
};

}  // namespace host
