#pragma once

#include <functional>
#include <string>

/// Told the bytes that have moved, and whether they complete the file.
using ProgressCallback = std::function<void(unsigned long, bool)>;
/// Answers whether the host has asked for a pause.
using PauseQuery = std::function<bool()>;

/// Copies the regular file `sourcePath` into `destinationPath` in chunks of at most 256 KiB,
/// syncing the destination after each.
///
/// The destination must be empty or absent: it is created (mode 0664) but not truncated.
/// `progress`, which may be empty, is called after each chunk; the last call is marked done and
/// adds the length of the source's name, so that the counts add up to the per-file measure.
/// `isPaused` must not be empty; it is asked before each chunk and ends the copy early.
///
/// Returns 0 when everything was copied or a pause ended the copy (ask again to tell the two
/// apart), else a negated errno, which errno holds too. A failing sync neither ends the copy nor
/// changes the result; the first one is handed up through `syncError`, as a negated errno, and
/// means that the copy may not be on the disk. Runs on the caller's thread.
[[nodiscard]] int copyFile(const std::string& sourcePath, const std::string& destinationPath,
                           const ProgressCallback& progress, const PauseQuery& isPaused,
                           int* syncError = nullptr);
