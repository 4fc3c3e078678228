#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

/// The pause flag of one run. The listener thread and the action share it and nothing else; it
/// only ever goes from false to true and orders nothing, so relaxed access is enough. Shared
/// ownership lets the listener outlive the action's object.
using PauseFlag = std::shared_ptr<std::atomic<bool>>;

/// Reads command lines from `cmdFd` until the host closes its end or a read fails, and sets
/// `paused` on "pause". Takes over `cmdFd`: it is closed at the end, except when no stream can be
/// opened on it. Runs on the listener thread and touches nothing but its two arguments.
void listenForCommands(int cmdFd, const PauseFlag& paused);

/// The command word of a line: its text up to the first blank or line feed. Empty for a line that
/// begins with either.
[[nodiscard]] std::string commandWord(std::string_view line);
