#pragma once

#include <stdexcept>
#include <string>

namespace host {

/// The exit status of vaultctl; the last two as sysexits.h has them.
enum class ExitStatus {
    kDone = 0,
    kFailed = 1,
    kRefused = 2,
    kPaused = 3,
    kUsage = 64,
    kOutput = 74,  ///< done, but what was to be said could not be written
};

/// Ends a job before it is done. The text is the one sentence the person reads: what happened,
/// that nothing was lost, what to do.
class JobEnd : public std::runtime_error {
  public:
    JobEnd(ExitStatus status, const std::string& text)
        : std::runtime_error(text), status_(status) {}
    [[nodiscard]] ExitStatus status() const { return status_; }

  private:
    ExitStatus status_;
};

}  // namespace host
