#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace host {

[[nodiscard]] std::string formatBytes(uint64_t bytes);
[[nodiscard]] std::string formatDuration(std::chrono::seconds duration);

/// Where a job stands.
struct Progress {
    uint64_t done = 0;   ///< bytes of the whole job, never more than total
    uint64_t total = 0;  ///< bytes
    double rate = 0;     ///< bytes per second of this run; 0 while unknown
    std::optional<std::chrono::seconds> left;

    /// 0 to 100; 100 only when everything is done.
    [[nodiscard]] unsigned percent() const;
};

/// Turns the worker's counts into progress that never goes back within a run. The rate is that of
/// this run alone: what earlier runs moved says nothing about the time that is left.
class ProgressMeter {
  public:
    using Clock = std::chrono::steady_clock;

    ProgressMeter(uint64_t base, uint64_t total, Clock::time_point start);
    [[nodiscard]] Progress update(uint64_t done, Clock::time_point now);

  private:
    uint64_t base_;
    uint64_t total_;
    uint64_t shown_;
    Clock::time_point start_;
};

/// One line for a terminal `columns` wide, with a bar if there is room for one.
[[nodiscard]] std::string progressBar(const std::string& title, const Progress& progress,
                                      size_t columns);
[[nodiscard]] std::string progressSentence(const std::string& title, const Progress& progress);

}  // namespace host
