#include "say/progress.h"

#include <algorithm>
#include <array>
#include <cmath>

#include <fmt/format.h>

#include "say/text.h"

namespace host {
namespace {

constexpr size_t kNarrowestBar = 10;
constexpr size_t kWidestBar = 40;

/// "  30.0 MiB of 195.9 MiB" and so on, in the order of the line; empty where there is nothing.
struct Parts {
    std::string bytes, files, rate, left;

    explicit Parts(const Progress& progress)
        : bytes(fmt::format("  {} of {}", formatBytes(progress.sizeDone),
                            formatBytes(progress.size))),
          files(
              fmt::format("  {} of {}", progress.filesDone, counted(progress.filesTotal, "file"))) {
        if (progress.rate >= 1) {
            rate = fmt::format("  {}/s", formatBytes(static_cast<uint64_t>(progress.rate)));
        }
        if (progress.left) left = fmt::format("  {} left", formatDuration(*progress.left));
    }
    [[nodiscard]] std::string text() const { return bytes + files + rate + left; }
};

}  // namespace

std::string formatBytes(uint64_t bytes) {
    constexpr std::array<const char*, 6> kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) return counted(bytes, "byte");
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

ProgressMeter::ProgressMeter(const Progress& begun, Clock::time_point start)
    : begun_(begun), shown_(begun.done), start_(start) {}

Progress ProgressMeter::update(uint64_t done, uint64_t filesDone, Clock::time_point now) {
    shown_ = std::clamp(done, shown_, std::max(shown_, begun_.total));
    Progress progress = begun_;
    progress.done = shown_;
    progress.filesDone = std::min(filesDone, begun_.filesTotal);
    const auto moved = static_cast<double>(shown_ - begun_.done);
    const auto rest = static_cast<double>(begun_.total - std::min(begun_.total, shown_));
    const auto sizeToMove = static_cast<double>(begun_.size - begun_.sizeDone);
    const double sizeMoved = moved > 0 ? sizeToMove * moved / (moved + rest) : 0;
    progress.sizeDone += static_cast<uint64_t>(std::llround(sizeMoved));
    const std::chrono::duration<double> elapsed = now - start_;
    if (elapsed.count() >= 0.5 && moved > 0) {
        progress.rate = sizeMoved / elapsed.count();
        if (rest > 0) {
            progress.left = std::chrono::seconds(std::llround(rest / moved * elapsed.count()));
        }
    }
    return progress;
}

std::string progressBar(const std::string& title, const Progress& progress, size_t columns) {
    const std::string head = fmt::format("{} {:3}%", title, progress.percent());
    Parts parts(progress);
    size_t used = head.size() + parts.left.size();
    for (std::string* const part : {&parts.bytes, &parts.files, &parts.rate}) {
        if (used + part->size() > columns) part->clear();
        used += part->size();
    }
    std::string bar;
    if (used + 3 + kNarrowestBar <= columns) {
        const size_t width = std::min(kWidestBar, columns - used - 3);
        const size_t filled = width * progress.percent() / 100;
        bar = fmt::format(" [{}{}]", std::string(filled, '#'), std::string(width - filled, '.'));
    }
    return (head + bar + parts.text()).substr(0, columns);
}

std::string progressSentence(const std::string& title, const Progress& progress) {
    return fmt::format("{}: {}%{}", title, progress.percent(), Parts(progress).text());
}

}  // namespace host
