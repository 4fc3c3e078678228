#include "lists/list_queue.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>
#include <unordered_map>

#include "lists/lists.h"
#include "tree/descent.h"
#include "tree/names.h"
#include "tree/walk.h"

using files::HeldDirectory;

namespace host {
namespace {

constexpr off_t kNumberOffset = 8;

const std::string kList(names::kProcessFile);

/// Only the count of the list in `directory`; 0 where it cannot be read.
uint32_t readNumber(const HeldDirectory& directory) {
    struct stat status {};
    const android::base::unique_fd list = directory.openForReading(kList, &status);
    uint32_t number = 0;
    const bool whole = pread(list.get(), &number, sizeof number, kNumberOffset) == sizeof number;
    return whole ? number : 0;
}

}  // namespace

ListQueue::ListQueue(const HeldDirectory& plain, const HeldDirectory& source,
                     const std::vector<ListPlace>& lists)
    : source_(source) {
    // A walk goes the other way: a directory first, and then its last subdirectory.
    if (&plain == &source) {
        waiting_.assign(lists.rbegin(), lists.rend());
        return;
    }
    std::unordered_map<std::string_view, const ListPlace*> places;
    for (const ListPlace& place : lists) places.emplace(place.relative, &place);
    const auto enter = [&](const Visit& visit) {
        const auto found = places.find(visit.relative);
        if (found != places.end()) waiting_.push_front(*found->second);
    };
    walkTree(plain, enter, [](const std::string&, int) {});
}

void ListQueue::skipFinished() {
    struct stat status {};
    while (!waiting_.empty() &&
           !source_.openBelow(waiting_.front().relative).look(kList, &status)) {
        finished_ += waiting_.front().entries - waiting_.front().number;
        waiting_.pop_front();
    }
}

uint64_t ListQueue::filesDone() {
    skipFinished();
    if (waiting_.empty()) return finished_;
    const ListPlace& place = waiting_.front();
    const HeldDirectory directory = source_.openBelow(place.relative);
    const uint32_t number = std::min(readNumber(directory), place.entries);
    return finished_ + number - std::min(number, place.number);
}

std::string ListQueue::nextFile() {
    skipFinished();
    if (waiting_.empty()) return "";
    const HeldDirectory directory = source_.openBelow(waiting_.front().relative);
    const ProcessFile list = loadProcessFile(directory);
    return list.number < list.entries.size()
               ? directory.pathOf(std::string(list.entries[list.number]))
               : "";
}

}  // namespace host
