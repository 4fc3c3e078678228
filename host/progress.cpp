#include "progress.h"

#include <algorithm>
#include <array>
#include <cmath>

#include <fmt/format.h>

namespace host {
namespace {

constexpr size_t kNarrowestBar = 10;
constexpr size_t kWidestBar = 40;

std::string rateAndTime(const Progress& progress) {
    std::string text;
    if (progress.rate > 0) {
        text += fmt::format("  {}/s", formatBytes(static_cast<uint64_t>(progress.rate)));
    }
    if (progress.left) text += fmt::format("  {} left", formatDuration(*progress.left));
    return text;
}

}  // namespace

std::string formatBytes(uint64_t bytes) {
    constexpr std::array<const char*, 6> kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) return fmt::format("{} bytes", bytes);
    auto value = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    while (value >= 1023.95 && unit + 1 < kUnits.size()) {
        value /= 1024;
        ++unit;
    }
    return fmt::format("{:.1f} {}", value, kUnits.at(unit));
}

std::string formatDuration(std::chrono::seconds duration) {
    const auto seconds = duration.count();
    if (seconds >= 3600) {
        return fmt::format("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
    }
    return fmt::format("{}:{:02}", seconds / 60, seconds % 60);
}

unsigned Progress::percent() const {
    if (total == 0 || done >= total) return 100;
    const double share = 100 * static_cast<double>(done) / static_cast<double>(total);
    return std::min(99U, static_cast<unsigned>(share));
}

ProgressMeter::ProgressMeter(uint64_t base, uint64_t total, Clock::time_point start)
    : base_(base), total_(total), shown_(base), start_(start) {}

Progress ProgressMeter::update(uint64_t done, Clock::time_point now) {
    shown_ = std::clamp(done, shown_, std::max(shown_, total_));
    Progress progress{.done = shown_, .total = total_, .rate = 0, .left = std::nullopt};
    const std::chrono::duration<double> elapsed = now - start_;
    if (elapsed.count() >= 0.5 && shown_ > base_) {
        progress.rate = static_cast<double>(shown_ - base_) / elapsed.count();
        const auto rest = static_cast<double>(total_ - shown_);
        if (rest > 0) progress.left = std::chrono::seconds(std::llround(rest / progress.rate));
    }
    return progress;
}

std::string progressBar(const std::string& title, const Progress& progress, size_t columns) {
    const std::string head = fmt::format("{} {:3}%", title, progress.percent());
    const std::string tail = fmt::format("  {} of {}{}", formatBytes(progress.done),
                                         formatBytes(progress.total), rateAndTime(progress));
    const size_t text = head.size() + tail.size() + 3;
    std::string line = head;
    if (text + kNarrowestBar <= columns) {
        const size_t width = std::min(kWidestBar, columns - text);
        const size_t filled = width * progress.percent() / 100;
        line += fmt::format(" [{}{}]", std::string(filled, '#'), std::string(width - filled, '.'));
    }
    return (line + tail).substr(0, columns);
}

std::string progressSentence(const std::string& title, const Progress& progress) {
    return fmt::format("{}: {}%  {} of {}{}", title, progress.percent(), formatBytes(progress.done),
                       formatBytes(progress.total), rateAndTime(progress));
}

}  // namespace host
