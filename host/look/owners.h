#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <vector>

namespace host {

/// Which owners and groups this process could give a file.
class Owners {
  public:
    Owners();
    /// Root may give a file to everybody, though in a user namespace only to those who are mapped
    /// into it: all others look there like one user, and who it was is not to be known. Anybody
    /// else may keep a file for himself and give it to the groups he is in.
    [[nodiscard]] bool canBePutBack(const struct stat& status) const;

  private:
    struct Range {
        uint64_t first = 0;
        uint64_t count = 0;
    };
    static std::vector<Range> readMap(const char* path);
    static bool contains(const std::vector<Range>& ranges, uint64_t id);

    std::vector<Range> users_;
    std::vector<Range> groups_;
    std::vector<gid_t> own_;  ///< the groups of a user other than root
};

}  // namespace host
