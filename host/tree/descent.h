#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "files/held_directory.h"

namespace host {

/// Opens one directory of a tree after another, each level below its open parent. The last levels
/// above it stay open, so that the next directory of a walk costs one opening; there is a bound to
/// how many do, whatever the depth of the tree.
class Descent {
  public:
    /// `root` outlives this object.
    explicit Descent(const files::HeldDirectory& root) : root_(root) {}

    /// The directory at `relative`, which is empty or "/a/b". Ask it whether it is open.
    [[nodiscard]] files::HeldDirectory open(const std::string& relative);

  private:
    struct Level {
        std::string name;
        files::HeldDirectory directory;
    };
    const files::HeldDirectory& root_;
    std::vector<Level> levels_;  ///< above the directory that was opened last
    size_t closed_ = 0;          ///< so many of these, from the root on, are not held any more
};

}  // namespace host
