#pragma once

#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "files/held_directory.h"
#include "records/process_header.h"

/// The record that makes the transfer of one directory resumable: `.ecryptfs_process` in that
/// directory, a ProcessHeader and a line feed, then one line per regular file of the directory.
namespace process_file {

/// Names with this prefix belong to the worker and are never listed.
inline constexpr char kOwnPrefix[] = ".ecryptfs_";
inline constexpr char kName[] = ".ecryptfs_process";

/// Reads all lines of the directory's process file, without their line feeds, into `lines`: the
/// header line first. A file that cannot be opened, one that is empty and anything that is no file
/// (a directory, a pipe) give no lines. False, with errno set, for a link (ELOOP) and when reading
/// fails: the list would then be cut short, and the files missing from it forgotten.
[[nodiscard]] bool load(const files::HeldDirectory& directory, std::vector<std::string>* lines);

/// Writes `header` and its line feed at the current position of `fd`. False with errno set.
[[nodiscard]] bool writeHeader(const ProcessHeader& header, android::base::borrowed_fd fd);

/// Removes the directory's process file, if there is one. What is no file stays.
void remove(const files::HeldDirectory& directory);

}  // namespace process_file
