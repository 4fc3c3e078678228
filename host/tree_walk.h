#pragma once

#include <functional>
#include <string>
#include <vector>

namespace host {

struct Entry {
    std::string name;
    unsigned char type;  ///< as the listing reports it: DT_REG, DT_DIR, DT_UNKNOWN ...
};

/// One directory's entries without "." and ".."; throws std::system_error.
[[nodiscard]] std::vector<Entry> listDirectory(const std::string& path);

/// Relative to the tree's root: empty for the root itself, else "/a/b".
using OnDirectory =
    std::function<void(const std::string& relative, const std::vector<Entry>& entries)>;
/// Told of a directory that cannot be listed, with the error number; the walk goes on.
using OnUnlisted = std::function<void(const std::string& relative, int error)>;

/// Visits the root and everything below it, each directory before its subdirectories, and closes
/// each before the next is opened. Types are those of the listing, as in the worker's own walks: a
/// symbolic link to a directory is not followed. Directories with one of the mover's own names are
/// passed over, as the scan does.
void walkTree(const std::string& root, const OnDirectory& onDirectory,
              const OnUnlisted& onUnlisted);
/// As above; throws std::system_error at the first directory that cannot be listed.
void walkTree(const std::string& root, const OnDirectory& onDirectory);

}  // namespace host
