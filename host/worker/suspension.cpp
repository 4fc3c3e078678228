#include "worker/suspension.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include "end/throw_errno.h"

namespace host {

Suspension::Suspension() {
    sigemptyset(&signal_);
    sigaddset(&signal_, SIGTSTP);
    descriptor_.reset(signalfd(-1, &signal_, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!descriptor_.ok()) throwErrno("cannot watch for signals");
    sigprocmask(SIG_BLOCK, &signal_, nullptr);
}

Suspension::~Suspension() { sigprocmask(SIG_UNBLOCK, &signal_, nullptr); }

void Suspension::obey(const std::function<void()>& announce) {
    signalfd_siginfo taken;
    if (read(descriptor_.get(), &taken, sizeof taken) != sizeof taken) return;
    announce();
    // Not SIGSTOP: where no shell could continue the process the kernel lets this one pass.
    (void)kill(getpid(), SIGTSTP);  // cannot fail for one's own process
    sigprocmask(SIG_UNBLOCK, &signal_, nullptr);
    sigprocmask(SIG_BLOCK, &signal_, nullptr);
}

}  // namespace host
