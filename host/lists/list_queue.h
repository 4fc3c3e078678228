#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "files/held_directory.h"
#include "lists/lists.h"

namespace host {

/// The lists of a tree in the order in which the worker takes them up, which is that of the plain
/// tree: subdirectories before the files beside them. Tells how far it is without counting all.
class ListQueue {
  public:
    /// `lists` are those of `source` in the order of a walk over it. If that is not the plain tree,
    /// that one is walked for its order; a directory that cannot be listed is passed over.
    /// `source`, one of the two roots, outlives this object.
    ListQueue(const files::HeldDirectory& plain, const files::HeldDirectory& source,
              const std::vector<ListPlace>& lists);

    /// Files dealt with since the construction; looks at the first lists alone.
    [[nodiscard]] uint64_t filesDone();

    /// The path of the file that comes next, or empty when no list is left.
    [[nodiscard]] std::string nextFile();

  private:
    /// Takes the lists off that are no longer there.
    void skipFinished();

    const files::HeldDirectory& source_;
    std::deque<ListPlace> waiting_;  ///< as they were at the construction
    uint64_t finished_ = 0;          ///< files in the lists that were taken off
};

}  // namespace host
