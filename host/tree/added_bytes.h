#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <utility>

namespace host {

/// Bytes that a moved tree takes more than it did: what is not written in files with holes is, and
/// each name of a file becomes a copy. To be asked of every file of a tree once.
class AddedBytes {
  public:
    /// That filling the holes takes; 0 for a file that has as many blocks as its size needs. A file
    /// system that packs bytes looks as if it had holes.
    [[nodiscard]] static uint64_t byFilling(const struct stat& status);

    /// That this name's copy takes while others keep the file: of the last one that it has, none.
    [[nodiscard]] uint64_t byCopying(const struct stat& status);

  private:
    std::map<std::pair<dev_t, ino_t>, nlink_t> names_;  ///< so many were asked of
};

}  // namespace host
