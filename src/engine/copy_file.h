#pragma once

#include <functional>

#include <android-base/unique_fd.h>

#include "engine/file_argument.h"

/// Told the bytes that have moved, and whether they complete the file.
using ProgressCallback = std::function<void(unsigned long, bool)>;
/// Answers whether the host has asked for a pause.
using PauseQuery = std::function<bool()>;

/// Copies the regular file `source` into `destination` in chunks of at most 256 KiB, syncing the
/// destination after each.
///
/// Neither is opened through a link or waited for, and only a regular file serves: a source that
/// is a link fails with -ELOOP. The destination must be empty or absent, and have no second name:
/// it is created (mode 0664) but not truncated. `progress`, which may be empty, is called after
/// each chunk; the last call is marked done and adds the length of the source's name, so that the
/// counts add up to the per-file measure. `isPaused` must not be empty; it is asked before each
/// chunk and ends the copy early.
///
/// Returns 0 when everything was copied or a pause ended the copy (ask again to tell the two
/// apart), else a negated errno, which errno holds too. A failing sync neither ends the copy nor
/// changes the result; the first one is handed up through `syncError`, as a negated errno, and
/// means that the copy may not be on the disk. Runs on the caller's thread.
[[nodiscard]] int copyFile(const FileArgument& source, const FileArgument& destination,
                           const ProgressCallback& progress, const PauseQuery& isPaused,
                           int* syncError = nullptr);

/// The same into a file that the caller has opened for writing, which is closed at the end.
[[nodiscard]] int copyFile(const FileArgument& source, android::base::unique_fd destination,
                           const ProgressCallback& progress, const PauseQuery& isPaused,
                           int* syncError = nullptr);
