#include "platform/logging.h"

#include <fcntl.h>
#include <unistd.h>

#include <android-base/logging.h>
#include <android-base/unique_fd.h>

namespace platform {
namespace {

android::base::LogFunction systemLogger() {
#if defined(__ANDROID__)
    return android::base::LogdLogger(android::base::SYSTEM);
#else
    return android::base::StderrLogger;
#endif
}

}  // namespace

void initLogging(char* argv[]) {
    android::base::InitLogging(argv, systemLogger(), android::base::DefaultAborter);
    android::base::SetDefaultTag("VaultMover");
}

void moveAwayFromLog([[maybe_unused]] int* pipe) {
#if !defined(__ANDROID__)
    if (*pipe != STDERR_FILENO) return;
    const int moved = fcntl(*pipe, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const android::base::unique_fd nothing(open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (moved < 0 || dup2(nothing.get(), STDERR_FILENO) < 0) return;
    *pipe = moved;
#endif
}

}  // namespace platform
