#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "files/held_directory.h"

namespace host {

/// The lists of a tree in the order in which the worker takes them up, which is that of the plain
/// tree: subdirectories before the files beside them. Tells how far it is without counting all.
class ListQueue {
  public:
    /// Walks the plain tree once. A directory that cannot be listed is passed over. `source`, one
    /// of the two roots, outlives this object.
    ListQueue(const files::HeldDirectory& plain, const files::HeldDirectory& source);

    /// Files dealt with since the construction; looks at the first lists alone.
    [[nodiscard]] uint64_t filesDone();

    /// The path of the file that comes next, or empty when no list is left.
    [[nodiscard]] std::string nextFile();

  private:
    struct Place {
        std::string relative;  ///< the directory
        uint32_t first = 0;    ///< entries that were dealt with before
        uint32_t entries = 0;
    };

    /// Takes the lists off that are no longer there.
    void skipFinished();

    const files::HeldDirectory& source_;
    std::deque<Place> waiting_;
    uint64_t finished_ = 0;  ///< files in the lists that were taken off
};

}  // namespace host
