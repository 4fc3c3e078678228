#include "platform/logging.h"

#include <android-base/logging.h>

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

}  // namespace platform
