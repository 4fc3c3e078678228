#include "look/owners.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "manifest/metadata.h"

namespace host {

Owners::Owners() : users_(readMap("/proc/self/uid_map")), groups_(readMap("/proc/self/gid_map")) {
    own_.resize(static_cast<size_t>(std::max(0, getgroups(0, nullptr))));
    own_.resize(
        static_cast<size_t>(std::max(0, getgroups(static_cast<int>(own_.size()), own_.data()))));
    own_.push_back(getegid());
}

std::vector<Owners::Range> Owners::readMap(const char* path) {
    std::ifstream file(path);
    std::vector<Range> ranges;
    Range range;
    for (uint64_t outside = 0; file >> range.first >> outside >> range.count;) {
        ranges.push_back(range);
    }
    // A kernel without user namespaces has no such file, and maps nobody away.
    if (!file.is_open()) ranges.push_back({.first = 0, .count = uint64_t{1} << 32});
    return ranges;
}

bool Owners::contains(const std::vector<Range>& ranges, uint64_t id) {
    return std::any_of(ranges.begin(), ranges.end(), [id](const Range& range) {
        return id >= range.first && id - range.first < range.count;
    });
}

bool Owners::canBePutBack(const struct stat& status) const {
    if (ourUser() == 0) return contains(users_, status.st_uid) && contains(groups_, status.st_gid);
    return status.st_uid == ourUser() &&
           std::find(own_.begin(), own_.end(), status.st_gid) != own_.end();
}

}  // namespace host
