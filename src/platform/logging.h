#pragma once

namespace platform {

/// Sends the base library's log to where this platform keeps its system log: logd's system buffer
/// on Android, standard error elsewhere. The tag is "VaultMover" whatever the executable is called.
/// The severities let through are those that the environment variable ANDROID_LOG_TAGS names at
/// the time of the call. Call once, before any second thread exists.
void initLogging(char* argv[]);

}  // namespace platform
