#pragma once

namespace platform {

/// Sends the base library's log to where this platform keeps its system log: logd's system buffer
/// on Android, standard error elsewhere. The tag is "VaultMover" whatever the executable is called.
/// The severities let through are those that the environment variable ANDROID_LOG_TAGS names at
/// the time of the call. Call once, before any second thread exists.
void initLogging(char* argv[]);

/// Gives the pipe another descriptor, close on exec, where `*pipe` is the one that the log goes to;
/// from then on the log goes nowhere. What cannot be moved stays, and is found unusable later.
void moveAwayFromLog(int* pipe);

}  // namespace platform
