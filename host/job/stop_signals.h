#pragma once

#include <csignal>

#include <android-base/unique_fd.h>

namespace host {

/// From construction on, SIGINT, SIGTERM and SIGHUP no longer end the process but are read here,
/// save those that it was started with ignored. To be built before the first thread, once. Also
/// ignores SIGPIPE (a reader of our output that has gone away must not end a move) and SIGIO
/// (somebody wants to write a file of which we have a lease), and no longer
/// ignores SIGCHLD, if it was started so.
class StopSignals {
  public:
    StopSignals();
    /// Readable when a stop was asked for.
    [[nodiscard]] int descriptor() const { return descriptor_.get(); }
    /// Takes one stop request, if there is one.
    [[nodiscard]] bool take();
    /// The signal mask that the worker starts with.
    [[nodiscard]] const sigset_t& maskBefore() const { return before_; }

  private:
    sigset_t before_{};
    android::base::unique_fd descriptor_;
};

}  // namespace host
