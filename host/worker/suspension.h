#pragma once

#include <csignal>
#include <functional>

#include <android-base/unique_fd.h>

namespace host {

/// While it lives, SIGTSTP (Ctrl-Z) stops the process only after it has said that it will. For the
/// time in which a worker is running, which the stop does not reach.
class Suspension {
  public:
    Suspension();
    ~Suspension();
    Suspension(const Suspension&) = delete;
    Suspension& operator=(const Suspension&) = delete;

    /// Readable when a stop was asked for.
    [[nodiscard]] int descriptor() const { return descriptor_.get(); }
    /// Calls `announce`, stops, and returns when the process is continued.
    void obey(const std::function<void()>& announce);

  private:
    sigset_t signal_{};
    android::base::unique_fd descriptor_;
};

}  // namespace host
