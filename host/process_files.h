#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tree.h"

namespace host {

/// The worker's list for one directory (docs/protocol.md).
struct ProcessFile {
    uint32_t number = 0;  ///< entries dealt with
    std::vector<std::string> entries;
};

/// Throws JobEnd (failed) when the file is no process file, std::system_error when unreadable.
[[nodiscard]] ProcessFile loadProcessFile(const std::string& path);

/// What the lists of a source tree still hold.
struct Pending {
    uint64_t files = 0;              ///< entries not dealt with
    uint64_t bytes = 0;              ///< their sizes and name lengths: what is still to be reported
    uint64_t largest = 0;            ///< bytes of the largest of these files
    std::vector<std::string> lists;  ///< the paths of the process files
};

[[nodiscard]] Pending countPending(const std::string& source);

/// Makes every list one that the worker can take up without harm, and the lists themselves
/// durable; to be called before the move, and again before each resumed one.
void makeListsSafe(const Tree& tree, Direction direction,
                   const std::function<void()>& betweenDirectories);

/// Removes every list of the tree. Only while nothing has been moved.
void removeLists(const std::string& source);

}  // namespace host
