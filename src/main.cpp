#include <stdlib.h>
#include <unistd.h>

#include <csignal>

#include <android-base/logging.h>
#include <android-base/properties.h>

#include "actions/decrypter.h"
#include "actions/encrypter.h"
#include "actions/scaner.h"
#include "arguments.h"
#include "debug_log.h"
#include "files/descriptors.h"
#include "platform/logging.h"
#include "platform/properties.h"

namespace {

void logBanner(const Arguments& arguments) {
    constexpr const char* kRule = "===================================";
    LOG(INFO) << kRule;
    LOG(INFO) << "version : " << arguments.version;
    LOG(INFO) << "IPC cmdFd : " << arguments.cmdFd;
    LOG(INFO) << "IPC statusFd : " << arguments.statusFd;
    LOG(INFO) << "crypto path : " << arguments.path;
    LOG(INFO) << "crypto action : " << arguments.action;
    LOG(INFO) << "crypto baseSize : " << arguments.baseSize;
    LOG(INFO) << "crypto totalSize : " << arguments.totalSize;
    LOG(INFO) << kRule;
}

bool runAction(const Arguments& arguments) {
    switch (arguments.action) {
        case 0:
            return Scaner::scan(arguments.cmdFd, arguments.statusFd, arguments.path);
        case 1:
            return Encrypter::encrypt(arguments.cmdFd, arguments.statusFd, arguments.path,
                                      arguments.baseSize, arguments.totalSize);
        case 2:
            return Decrypter::decrypt(arguments.cmdFd, arguments.statusFd, arguments.path,
                                      arguments.baseSize, arguments.totalSize);
        default:
            return false;
    }
}

bool run(int argc, char* argv[]) {
    // Cannot fail: the name is not empty and holds no "=".
    (void)setenv("ANDROID_LOG_TAGS", "*:v", 1);
    platform::initLogging(argv);
    platform::importProperties({"vold.ecryptfs.debug", "ro.debuggable"});
    debugEnabled = android::base::GetBoolProperty("vold.ecryptfs.debug", false) ||
                   android::base::GetBoolProperty("ro.debuggable", false);

    Arguments arguments;
    if (!parseArguments(argc, argv, &arguments)) return false;
    platform::moveAwayFromLog(&arguments.cmdFd);
    platform::moveAwayFromLog(&arguments.statusFd);
    logBanner(arguments);
    return runAction(arguments);
}

}  // namespace

int main(int argc, char* argv[]) {
    files::openStandardDescriptors();
    files::raiseDescriptorLimit();
    // A host that has gone away must not kill a move half-way; a status line that cannot be
    // written is reported where it is written.
    (void)std::signal(SIGPIPE, SIG_IGN);

    const bool succeeded = run(argc, argv);

    // Not exit(): the listener thread may stand inside a read that holds its stream's lock or
    // inside a log call, and must find neither the streams flushed nor the logger torn down under
    // it. Everything of ours is written and closed by now.
    _exit(succeeded ? EXIT_SUCCESS : EXIT_FAILURE);
}
