#include "process_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>
#include <system_error>
#include <unordered_map>

#include "durable_file.h"
#include "job_end.h"
#include "names.h"
#include "tree_walk.h"

namespace host {
namespace {

constexpr size_t kHeaderSize = 64;
constexpr size_t kNumberOffset = 8;

bool exists(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

bool isList(const Entry& entry) { return entry.name == names::kProcessFile; }

std::string listIn(const std::string& directory) {
    return directory + "/" + std::string(names::kProcessFile);
}

/// The worker reads its list line by line, header included: a number with a byte 0x0A (10, 266,
/// 2570 ...) cuts the header, and the list is refused.
bool headerIsCut(uint32_t number) {
    for (; number != 0; number >>= 8) {
        if ((number & 0xff) == '\n') return true;
    }
    return false;
}

size_t leadingDots(const std::string& name) {
    return std::min(name.find_first_not_of('.'), name.size());
}

/// On its way a file N stands in the target directory under the name .N, and a file .N found
/// there is taken for N's complete copy: N is deleted from the source and .N takes its name. So
/// where a directory holds both, .N must not arrive before N has been dealt with. With N first
/// every stop is safe: until N is recorded (synced) no file but N's own copy can be called .N in
/// the target, and afterwards nobody looks at N again. Fewer leading dots first puts every such
/// chain (N, .N, ..N) in that order.
bool orderDottedNames(std::vector<std::string>& entries) {
    std::unordered_map<std::string_view, size_t> places;
    for (size_t i = 0; i < entries.size(); ++i) places.emplace(entries[i], i);
    const bool wrong = std::any_of(entries.begin(), entries.end(), [&](const std::string& name) {
        const auto dotted = places.find("." + name);
        return dotted != places.end() && dotted->second < places.at(name);
    });
    if (!wrong) return false;
    std::stable_sort(entries.begin(), entries.end(), [](const auto& left, const auto& right) {
        return leadingDots(left) < leadingDots(right);
    });
    return true;
}

/// The worker does not look whether its count reached the disk. Where it did not, N was moved and
/// then .N, but N is still listed as next: the worker would take the moved .N for N's copy. Both
/// gone from the source and both in the target says that this is what happened.
bool movedWithoutRecord(const std::string& source, const std::string& target,
                        const std::vector<std::string>& entries, size_t index) {
    const std::string& name = entries[index];
    const std::string dotted = "." + name;
    return std::find(entries.begin() + static_cast<ptrdiff_t>(index), entries.end(), dotted) !=
               entries.end() &&
           !exists(source + "/" + name) && !exists(source + "/" + dotted) &&
           exists(target + "/" + name) && exists(target + "/" + dotted);
}

void makeListSafe(const std::string& source, const std::string& target) {
    const std::string path = listIn(source);
    ProcessFile list = loadProcessFile(path);
    size_t next = std::min<size_t>(list.number, list.entries.size());
    while (next < list.entries.size() && movedWithoutRecord(source, target, list.entries, next)) {
        ++next;
    }
    const bool skipped = next > list.number;
    list.entries.erase(list.entries.begin(), list.entries.begin() + static_cast<ptrdiff_t>(next));
    const bool ordered = orderDottedNames(list.entries);
    if (!headerIsCut(list.number) && !skipped && !ordered) return;
    // The entries still to do, counted from 0. Their order stays, so an interrupted one is still
    // the first and finds its copy.
    std::string bytes(kHeaderSize, '\0');
    bytes += '\n';
    for (const std::string& entry : list.entries) bytes += entry + "\n";
    replaceDurably(path, bytes);
}

}  // namespace

ProcessFile loadProcessFile(const std::string& path) {
    const std::optional<std::string> content = readIfThere(path);
    if (!content) return {};  // A worker that is running has finished the directory meanwhile.
    const std::string& bytes = *content;
    if (bytes.size() <= kHeaderSize || bytes[kHeaderSize] != '\n') {
        throw JobEnd(ExitStatus::kFailed, path +
                                              " is damaged, so the move cannot go on by itself. "
                                              "No file is lost; look at this file.");
    }
    ProcessFile list;
    // Both ends of this format are little-endian machines.
    std::memcpy(&list.number, bytes.data() + kNumberOffset, sizeof list.number);
    size_t begin = kHeaderSize + 1;
    while (begin < bytes.size()) {
        const size_t end = std::min(bytes.find('\n', begin), bytes.size());
        list.entries.push_back(bytes.substr(begin, end - begin));
        begin = end + 1;
    }
    return list;
}

Pending countPending(const std::string& source) {
    Pending pending;
    walkTree(source, [&](const std::string& relative, const std::vector<Entry>& entries) {
        if (std::none_of(entries.begin(), entries.end(), isList)) return;
        const std::string directory = source + relative;
        pending.lists.push_back(listIn(directory));
        const ProcessFile list = loadProcessFile(listIn(directory));
        for (size_t i = list.number; i < list.entries.size(); ++i) {
            struct stat status {};
            const std::string path = directory + "/" + list.entries[i];
            ++pending.files;
            // One that has left the source is finished without a copy, and reports no bytes.
            if (lstat(path.c_str(), &status) != 0) continue;
            const auto size = static_cast<uint64_t>(status.st_size);
            pending.bytes += size + list.entries[i].size();
            pending.largest = std::max(pending.largest, size);
        }
    });
    return pending;
}

void makeListsSafe(const Tree& tree, Direction direction,
                   const std::function<void()>& betweenDirectories) {
    const std::string& source = tree.source(direction);
    walkTree(source, [&](const std::string& relative, const std::vector<Entry>& entries) {
        betweenDirectories();
        if (std::none_of(entries.begin(), entries.end(), isList)) return;
        makeListSafe(source + relative, tree.target(direction) + relative);
        // The scan syncs the lists, not the directories that name them.
        syncDirectory(source + relative);
    });
}

void removeLists(const std::string& source) {
    const std::string replacement =
        std::string(names::kProcessFile) + std::string(names::kReplacementSuffix);
    walkTree(source, [&](const std::string& relative, const std::vector<Entry>& entries) {
        for (const Entry& entry : entries) {
            if (isList(entry) || entry.name == replacement) {
                removeDurably(source + relative + "/" + entry.name);
            }
        }
    });
}

}  // namespace host
