#include "files/descriptors.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace files {

void openStandardDescriptors() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        // The lowest free number is taken, and those below are in use by now. Where even this
        // device cannot be opened there is nobody to tell.
        if (fcntl(descriptor, F_GETFD) < 0) (void)open("/dev/null", O_RDONLY);
    }
}

void raiseDescriptorLimit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit);  // up to the hard limit anybody may raise it
}

}  // namespace files
