#include "worker/lists.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>
#include <system_error>
#include <unordered_map>

#include "end/job_end.h"
#include "end/throw_errno.h"
#include "files/durable_file.h"
#include "tree/descent.h"
#include "tree/durable.h"
#include "tree/names.h"
#include "tree/walk.h"

using android::base::unique_fd;
using files::HeldDirectory;

namespace host {
namespace {

constexpr size_t kHeaderSize = 64;
constexpr size_t kNumberOffset = 8;

bool exists(const HeldDirectory& directory, const std::string& name) {
    struct stat status {};
    const bool found = directory.look(name, &status);
    if (!found && errno != ENOENT) throwErrno("cannot look at " + directory.pathOf(name));
    return found;
}

bool isList(const Entry& entry) { return entry.name == names::kProcessFile; }

std::string listIn(const HeldDirectory& directory) {
    return directory.pathOf(std::string(names::kProcessFile));
}

/// The worker reads its list line by line, header included: a number with a byte 0x0A (10, 266,
/// 2570 ...) cuts the header, and the list is refused.
bool headerIsCut(uint32_t number) {
    for (; number != 0; number >>= 8) {
        if ((number & 0xff) == '\n') return true;
    }
    return false;
}

bool hasHeader(const std::string& bytes) {
    if (bytes.size() <= kHeaderSize || bytes[kHeaderSize] != '\n') return false;
    std::string header = bytes.substr(0, kHeaderSize);
    header.replace(kNumberOffset, sizeof(uint32_t), sizeof(uint32_t), '\0');
    return header == std::string(kHeaderSize, '\0');
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
bool movedWithoutRecord(const HeldDirectory& source, const HeldDirectory& target,
                        const std::vector<std::string>& entries, size_t index) {
    const std::string& name = entries[index];
    const std::string dotted = "." + name;
    return std::find(entries.begin() + static_cast<ptrdiff_t>(index), entries.end(), dotted) !=
               entries.end() &&
           !exists(source, name) && !exists(source, dotted) && exists(target, name) &&
           exists(target, dotted);
}

/// A list of which nothing is done yet.
void storeEntries(const HeldDirectory& directory, const std::vector<std::string>& entries) {
    std::string bytes(kHeaderSize, '\0');
    bytes += '\n';
    for (const std::string& entry : entries) bytes += entry + "\n";
    replaceDurably(directory, names::kProcessFile, bytes);
}

void makeListSafe(const HeldDirectory& source, const HeldDirectory& target) {
    ProcessFile list = loadProcessFile(source);
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
    storeEntries(source, list.entries);
}

/// The worker does not look whether its own syncs of a scan succeeded, and it does not sync the
/// directories that name the lists.
void syncList(const HeldDirectory& directory) {
    struct stat status {};
    const unique_fd list = directory.openForReading(std::string(names::kProcessFile), &status);
    if (!list.ok() || fsync(list.get()) != 0) throwErrno("cannot sync " + listIn(directory));
    syncDirectory(directory);
}

}  // namespace

ProcessFile loadProcessFile(const HeldDirectory& directory) {
    const std::optional<std::string> content = readIfThere(directory, names::kProcessFile);
    if (!content) return {};  // A worker that is running has finished the directory meanwhile.
    const std::string& bytes = *content;
    if (!hasHeader(bytes) || bytes.back() != '\n') {
        throw ListDamaged(listIn(directory) +
                          " is damaged, so the move cannot go on by itself. No file is lost; "
                          "`vaultctl repair`, with the directory behind it, tells more.");
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

Pending countPending(const HeldDirectory& source) {
    Pending pending;
    walkTree(source, [&](const Visit& visit) {
        if (std::none_of(visit.entries.begin(), visit.entries.end(), isList)) return;
        pending.lists.push_back(listIn(visit.directory));
        const ProcessFile list = loadProcessFile(visit.directory);
        for (size_t i = list.number; i < list.entries.size(); ++i) {
            struct stat status {};
            ++pending.files;
            // One that has left the source is finished without a copy, and reports no bytes.
            if (!visit.directory.look(list.entries[i], &status)) continue;
            const auto size = static_cast<uint64_t>(status.st_size);
            pending.bytes += size + list.entries[i].size();
            pending.nameBytes += list.entries[i].size();
            pending.largest = std::max(pending.largest, size);
        }
    });
    return pending;
}

void makeListsSafe(const HeldDirectory& source, const HeldDirectory& target,
                   const std::function<void()>& betweenDirectories) {
    Descent descent(target);
    walkTree(source, [&](const Visit& visit) {
        betweenDirectories();
        if (std::none_of(visit.entries.begin(), visit.entries.end(), isList)) return;
        makeListSafe(visit.directory, descent.open(visit.relative));
        syncList(visit.directory);
    });
}

void writeList(const HeldDirectory& directory, std::vector<std::string> entries) {
    (void)orderDottedNames(entries);  // Whether it had to do anything does not matter here.
    storeEntries(directory, entries);
}

void removeLists(const HeldDirectory& source) {
    const std::string replacement =
        files::DurableFile::replacementOf(std::string(names::kProcessFile));
    walkTree(source, [&](const Visit& visit) {
        for (const Entry& entry : visit.entries) {
            if (isList(entry) || entry.name == replacement) {
                removeDurably(visit.directory, names::kProcessFile);
            }
        }
    });
}

}  // namespace host
