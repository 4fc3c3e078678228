#include "job/stop_signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include "end/throw_errno.h"

namespace host {

StopSignals::StopSignals() {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGIO, SIG_IGN);
    // Inherited as ignored it would take the worker's end away before it can be waited for.
    std::signal(SIGCHLD, SIG_DFL);
    sigset_t stops;
    sigemptyset(&stops);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        // What was started with a signal ignored (nohup) stays deaf to it.
        struct sigaction inherited {};
        (void)sigaction(signal, nullptr, &inherited);  // Fails for unknown signals alone.
        if (inherited.sa_handler != SIG_IGN) sigaddset(&stops, signal);
    }
    sigprocmask(SIG_BLOCK, &stops, &before_);
    descriptor_.reset(signalfd(-1, &stops, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!descriptor_.ok()) throwErrno("cannot watch for signals");
}

bool StopSignals::take() {
    signalfd_siginfo signal;
    return read(descriptor_.get(), &signal, sizeof signal) == sizeof signal;
}

}  // namespace host
