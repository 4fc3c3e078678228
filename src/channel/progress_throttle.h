#pragma once

#include <chrono>
#include <cstdint>

/// Decides which progress reports reach the host, however often the transfer reports: about one
/// "progress" line a second and one "record_progress" line every five seconds. Times are wall-clock
/// times; one that runs backwards lets a line through instead of silencing the run.
class ProgressThrottle {
  public:
    using TimePoint = std::chrono::system_clock::time_point;

    /// `baseSize` seeds the running total; both intervals start at `firstCall`.
    ProgressThrottle(uint64_t baseSize, TimePoint firstCall);

    /// Adds `count` to the running total. Returns whether a "progress" line is due.
    [[nodiscard]] bool addProgress(uint64_t count, TimePoint now);

    /// Returns whether a "record_progress" line is due for a file completed at `now`.
    [[nodiscard]] bool recordDue(TimePoint now);

    [[nodiscard]] uint64_t progressTotal() const { return progressTotal_; }

  private:
    TimePoint lastProgressTime_;
    TimePoint lastRecordTime_;
    uint64_t progressTotal_;
};
