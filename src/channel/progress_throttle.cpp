#include "channel/progress_throttle.h"

namespace {

// Whole milliseconds, truncated toward zero.
int64_t millisecondsBetween(ProgressThrottle::TimePoint from, ProgressThrottle::TimePoint to) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count();
}

}  // namespace

ProgressThrottle::ProgressThrottle(uint64_t baseSize, TimePoint firstCall)
    : lastProgressTime_(firstCall), lastRecordTime_(firstCall), progressTotal_(baseSize) {}

bool ProgressThrottle::addProgress(uint64_t count, TimePoint now) {
    progressTotal_ += count;
    const int64_t elapsed = millisecondsBetween(lastProgressTime_, now);
    if (elapsed >= 1 && elapsed <= 999) return false;
    lastProgressTime_ = now;
    return true;
}

bool ProgressThrottle::recordDue(TimePoint now) {
    const int64_t elapsed = millisecondsBetween(lastRecordTime_, now);
    if (elapsed >= 0 && elapsed <= 5000) return false;
    lastRecordTime_ = now;
    return true;
}
