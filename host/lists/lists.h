#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "end/job_end.h"
#include "files/held_directory.h"

namespace host {

/// The worker's list for one directory (docs/protocol.md).
struct ProcessFile {
    uint32_t number = 0;                    ///< entries dealt with
    std::vector<std::string_view> entries;  ///< in `text`
    std::unique_ptr<const std::string> text;
};

/// Refuses a list of which the worker could not make sense.
struct ListDamaged : JobEnd {
    explicit ListDamaged(const std::string& text) : JobEnd(ExitStatus::kRefused, text) {}
};

/// Throws ListDamaged when the file is no process file, std::system_error when unreadable. Without
/// a file there is nothing to do.
[[nodiscard]] ProcessFile loadProcessFile(const files::HeldDirectory& directory);

/// Where a list is, and how far.
struct ListPlace {
    std::string relative;  ///< the directory
    uint32_t number = 0;   ///< entries dealt with
    uint32_t entries = 0;
};

/// What the lists of a source tree still hold.
struct Pending {
    uint64_t files = 0;      ///< entries not dealt with
    uint64_t bytes = 0;      ///< their sizes and name lengths: what is still to be reported
    uint64_t nameBytes = 0;  ///< the name lengths in that
    uint64_t largest = 0;    ///< bytes of the largest of these files
    uint64_t added = 0;      ///< bytes that filling holes and copying names takes more
    std::vector<ListPlace> lists;

    [[nodiscard]] uint64_t size() const { return bytes - nameBytes; }
};

[[nodiscard]] Pending countPending(const files::HeldDirectory& source);

/// Makes every list one that the worker can take up without harm, and the lists themselves
/// durable; to be called before the move, and again before each resumed one. Returns what they
/// hold, but for the sizes of the files, at which it does not look.
Pending makeListsSafe(const files::HeldDirectory& source, const files::HeldDirectory& target,
                      const std::function<void()>& betweenDirectories);

/// Replaces the directory's list by one of these entries, in an order that is safe.
void writeList(const files::HeldDirectory& directory, std::vector<std::string_view> entries);

/// Removes every list of the tree. Only while nothing has been moved.
void removeLists(const files::HeldDirectory& source);

}  // namespace host
