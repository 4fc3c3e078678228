#include "tree/descent.h"

#include <algorithm>
#include <utility>

using files::HeldDirectory;

namespace host {
namespace {

constexpr size_t kMostHeld = 100;

std::vector<std::string> namesIn(const std::string& relative) {
    std::vector<std::string> names;
    for (size_t begin = 0; begin < relative.size();) {
        const size_t end = std::min(relative.find('/', begin + 1), relative.size());
        names.push_back(relative.substr(begin + 1, end - begin - 1));
        begin = end;
    }
    return names;
}

}  // namespace

HeldDirectory Descent::open(const std::string& relative) {
    const std::vector<std::string> names = namesIn(relative);
    if (names.empty()) return root_.openBelow("");
    size_t level = 0;
    while (level < levels_.size() && level + 1 < names.size() &&
           levels_[level].name == names[level]) {
        ++level;
    }
    levels_.resize(level);
    if (level <= closed_) {
        // Back above what is still open: down again from the root.
        levels_.clear();
        closed_ = level = 0;
    }
    const auto parent = [this]() -> const HeldDirectory& {
        return levels_.empty() ? root_ : levels_.back().directory;
    };
    for (; level + 1 < names.size(); ++level) {
        HeldDirectory next = parent().openChild(names[level]);
        if (!next.isOpen()) return next;
        levels_.push_back({names[level], std::move(next)});
        if (levels_.size() - closed_ > kMostHeld) levels_[closed_++].directory = HeldDirectory();
    }
    return parent().openChild(names.back());
}

}  // namespace host
