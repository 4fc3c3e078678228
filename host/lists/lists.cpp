#include "lists/lists.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>
#include <system_error>
#include <unordered_set>
#include <utility>

#include "end/job_end.h"
#include "end/throw_errno.h"
#include "files/durable_file.h"
#include "tree/added_bytes.h"
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

size_t leadingDots(std::string_view name) {
    return std::min(name.find_first_not_of('.'), name.size());
}

/// On its way a file N stands in the target directory under the name .N, and a file .N found
/// there is taken for N's complete copy: N is deleted from the source and .N takes its name. So
/// where a directory holds both, .N must not arrive before N has been dealt with. With N first
/// every stop is safe: until N is recorded (synced) no file but N's own copy can be called .N in
/// the target, and afterwards nobody looks at N again. Fewer leading dots first puts every such
/// chain (N, .N, ..N) in that order.
bool orderDottedNames(std::vector<std::string_view>& entries) {
    std::unordered_set<std::string_view> waiting;  // names N of which .N came first
    bool wrong = false;
    for (const std::string_view name : entries) {
        wrong = wrong || waiting.contains(name);
        if (name.starts_with('.')) waiting.insert(name.substr(1));
    }
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
                        const std::vector<std::string_view>& entries, size_t index) {
    const std::string name(entries[index]);
    const std::string dotted = "." + name;
    return std::find(entries.begin() + static_cast<ptrdiff_t>(index), entries.end(), dotted) !=
               entries.end() &&
           !exists(source, name) && !exists(source, dotted) && exists(target, name) &&
           exists(target, dotted);
}

/// A list of which nothing is done yet.
void storeEntries(const HeldDirectory& directory, const std::vector<std::string_view>& entries) {
    std::string bytes(kHeaderSize, '\0');
    bytes += '\n';
    for (const std::string_view entry : entries) {
        bytes += entry;
        bytes += '\n';
    }
    replaceDurably(directory, names::kProcessFile, bytes);
}

/// Returns the list with the entries that are still to do alone.
ProcessFile makeListSafe(const HeldDirectory& source, const HeldDirectory& target) {
    ProcessFile list = loadProcessFile(source);
    size_t next = std::min<size_t>(list.number, list.entries.size());
    while (next < list.entries.size() && movedWithoutRecord(source, target, list.entries, next)) {
        ++next;
    }
    const bool skipped = next > list.number;
    list.entries.erase(list.entries.begin(), list.entries.begin() + static_cast<ptrdiff_t>(next));
    const bool ordered = orderDottedNames(list.entries);
    if (headerIsCut(list.number) || skipped || ordered) {
        // The entries still to do, counted from 0. Their order stays, so an interrupted one is
        // still the first and finds its copy.
        storeEntries(source, list.entries);
        list.number = 0;
    }
    return list;
}

/// The worker does not look whether its own syncs of a scan succeeded, and it does not sync the
/// directories that name the lists.
void syncList(const HeldDirectory& directory) {
    struct stat status {};
    const unique_fd list = directory.openForReading(std::string(names::kProcessFile), &status);
    if (!list.ok() || fsync(list.get()) != 0) throwErrno("cannot sync " + listIn(directory));
    syncDirectory(directory);
}

void forEachList(const HeldDirectory& source, const std::function<void()>& betweenDirectories,
                 const OnDirectory& each) {
    walkTree(
        source,
        [&](const Visit& visit) {
            betweenDirectories();
            if (std::any_of(visit.entries.begin(), visit.entries.end(), isList)) each(visit);
        },
        Keep::kDirectoriesAndOwnNames);
}

void addList(const Visit& visit, uint32_t number, size_t left, Pending& pending) {
    pending.lists.push_back({visit.relative, number, number + static_cast<uint32_t>(left)});
    pending.files += left;
}

}  // namespace

ProcessFile loadProcessFile(const HeldDirectory& directory) {
    std::optional<std::string> content = readIfThere(directory, names::kProcessFile);
    if (!content) return {};  // A worker that is running has finished the directory meanwhile.
    ProcessFile list;
    list.text = std::make_unique<const std::string>(std::move(*content));
    const std::string& bytes = *list.text;
    if (!hasHeader(bytes) || bytes.back() != '\n') {
        throw ListDamaged(listIn(directory) +
                          " is damaged, so the move cannot go on by itself. No file is lost; "
                          "`vaultctl repair`, with the directory behind it, tells more.");
    }
    // Both ends of this format are little-endian machines.
    std::memcpy(&list.number, bytes.data() + kNumberOffset, sizeof list.number);
    size_t begin = kHeaderSize + 1;
    while (begin < bytes.size()) {
        const size_t end = std::min(bytes.find('\n', begin), bytes.size());
        list.entries.emplace_back(bytes.data() + begin, end - begin);
        begin = end + 1;
    }
    return list;
}

Pending countPending(const HeldDirectory& source) {
    Pending pending;
    AddedBytes added;
    forEachList(
        source, [] {},
        [&](const Visit& visit) {
            const ProcessFile list = loadProcessFile(visit.directory);
            const size_t number = std::min<size_t>(list.number, list.entries.size());
            addList(visit, static_cast<uint32_t>(number), list.entries.size() - number, pending);
            for (size_t i = number; i < list.entries.size(); ++i) {
                struct stat status {};
                const std::string name(list.entries[i]);
                // One that has left the source is finished without a copy, and reports no bytes.
                if (!visit.directory.look(name, &status)) continue;
                const auto size = static_cast<uint64_t>(status.st_size);
                pending.bytes += size + name.size();
                pending.nameBytes += name.size();
                pending.largest = std::max(pending.largest, size);
                pending.added += AddedBytes::byFilling(status) + added.byCopying(status);
            }
        });
    return pending;
}

Pending makeListsSafe(const HeldDirectory& source, const HeldDirectory& target,
                      const std::function<void()>& betweenDirectories) {
    Pending pending;
    Descent descent(target);
    forEachList(source, betweenDirectories, [&](const Visit& visit) {
        const ProcessFile list = makeListSafe(visit.directory, descent.open(visit.relative));
        syncList(visit.directory);
        addList(visit, list.number, list.entries.size(), pending);
        for (const std::string_view name : list.entries) pending.nameBytes += name.size();
    });
    return pending;
}

void writeList(const HeldDirectory& directory, std::vector<std::string_view> entries) {
    (void)orderDottedNames(entries);  // Whether it had to do anything does not matter here.
    storeEntries(directory, entries);
}

void removeLists(const HeldDirectory& source) {
    const std::string replacement =
        files::DurableFile::replacementOf(std::string(names::kProcessFile));
    const auto remove = [&](const Visit& visit) {
        for (const Entry& entry : visit.entries) {
            if (isList(entry) || entry.name == replacement) {
                removeDurably(visit.directory, names::kProcessFile);
            }
        }
    };
    walkTree(source, remove, Keep::kDirectoriesAndOwnNames);
}

}  // namespace host
