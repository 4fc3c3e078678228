#pragma once

#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "records/process_header.h"

/// The record that makes the transfer of one directory resumable: `.ecryptfs_process` in that
/// directory, a ProcessHeader and a line feed, then one line per regular file of the directory.
namespace process_file {

/// Names with this prefix belong to the worker and are never listed.
inline constexpr char kOwnPrefix[] = ".ecryptfs_";
inline constexpr char kName[] = ".ecryptfs_process";

/// The process file's path in `directory`.
[[nodiscard]] std::string pathIn(const std::string& directory);

/// Reads all lines, without their line feeds, into `lines`: the header line first. A file that
/// cannot be opened, one that is empty and anything that is no file (a directory, a pipe) give no
/// lines. False, with errno set, only when reading fails: the list would then be cut short, and
/// the files missing from it forgotten.
[[nodiscard]] bool load(const std::string& path, std::vector<std::string>* lines);

/// Writes `header` and its line feed at the current position of `fd`. False with errno set.
[[nodiscard]] bool writeHeader(const ProcessHeader& header, android::base::borrowed_fd fd);

}  // namespace process_file
