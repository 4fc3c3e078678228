#include "arguments.h"

#include <android-base/logging.h>
#include <android-base/parseint.h>

namespace {

constexpr int kArgumentCount = 8;  // the program's name included

template <typename T>
bool parseNumber(const char* name, const char* text, T* value) {
    bool parsed = false;
    if constexpr (std::is_signed_v<T>) {
        parsed = android::base::ParseInt(text, value);
    } else {
        parsed = android::base::ParseUint(text, value);
    }
    if (!parsed) LOG(ERROR) << "Failed to parse " << name << " in " << text;
    return parsed;
}

}  // namespace

bool parseArguments(int argc, const char* const* argv, Arguments* arguments) {
    if (argc != kArgumentCount) {
        LOG(ERROR) << "unexpected number of arguments: " << argc;
        return false;
    }
    if (argv[1][0] != '1') {
        LOG(ERROR) << "wrong updater binary API; expected 1 ; got " << argv[1];
        return false;
    }
    arguments->version = argv[1];
    if (!parseNumber("action", argv[2], &arguments->action)) return false;
    arguments->path = argv[3];
    return parseNumber("cmdFd", argv[4], &arguments->cmdFd) &&
           parseNumber("statusFd", argv[5], &arguments->statusFd) &&
           parseNumber("baseSize", argv[6], &arguments->baseSize) &&
           parseNumber("totalSize", argv[7], &arguments->totalSize);
}
