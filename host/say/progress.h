#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace host {

[[nodiscard]] std::string formatBytes(uint64_t bytes);
[[nodiscard]] std::string formatDuration(std::chrono::seconds duration);

/// Where a job stands. The worker counts the lengths of names as well as the sizes of files, so
/// that a job of empty files gets on too; people are told sizes.
struct Progress {
    uint64_t done = 0;       ///< sizes and name lengths, never more than total
    uint64_t total = 0;      ///< sizes and name lengths
    uint64_t sizeDone = 0;   ///< the sizes in done, as near as the counts tell
    uint64_t size = 0;       ///< the sizes in total
    uint64_t filesDone = 0;  ///< of the whole job
    uint64_t filesTotal = 0;
    double rate = 0;  ///< sizes per second of this run; 0 while unknown
    std::optional<std::chrono::seconds> left = std::nullopt;

    /// 0 to 100; 100 only when everything is done.
    [[nodiscard]] unsigned percent() const;
};

/// Turns the worker's counts into progress that never goes back within a run. The rate is that of
/// this run alone: what earlier runs moved says nothing about the time that is left.
class ProgressMeter {
  public:
    using Clock = std::chrono::steady_clock;

    /// `begun` is where the run begins.
    ProgressMeter(const Progress& begun, Clock::time_point start);
    [[nodiscard]] Progress update(uint64_t done, uint64_t filesDone, Clock::time_point now);

  private:
    Progress begun_;
    uint64_t shown_;
    Clock::time_point start_;
};

/// One line for a terminal `columns` wide, with what there is room for: percent and time left come
/// first, a bar last.
[[nodiscard]] std::string progressBar(const std::string& title, const Progress& progress,
                                      size_t columns);
[[nodiscard]] std::string progressSentence(const std::string& title, const Progress& progress);

}  // namespace host
