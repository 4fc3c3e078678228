#pragma once

#include <functional>
#include <string>
#include <vector>

#include "files/held_directory.h"

namespace host {

struct Entry {
    std::string name;
    unsigned char type;  ///< as the listing reports it: DT_REG, DT_DIR, DT_UNKNOWN ...
};

/// What is listed here; the directory stays open, but cannot be listed again. Throws
/// std::system_error.
[[nodiscard]] std::vector<Entry> listDirectory(files::HeldDirectory& directory);

/// Which entries a walk keeps in memory: of a directory with a million files that matters.
enum class Keep { kAll, kDirectoriesAndOwnNames };

/// One directory on the way through a tree.
struct Visit {
    const std::string& relative;  ///< to the tree's root: empty for the root itself, else "/a/b"
    const files::HeldDirectory& directory;
    const std::vector<Entry>& entries;  ///< those that the walk keeps
};
using OnDirectory = std::function<void(const Visit&)>;
/// Told of a directory that cannot be listed, with the error number; the walk goes on.
using OnUnlisted = std::function<void(const std::string& relative, int error)>;

/// Visits the root and everything below it, each directory before its subdirectories. Types are
/// those of the listing, as in the worker's own walks; a subdirectory is opened below its open
/// parent, and a link in its place is an error. Directories with one of the mover's own names are
/// passed over, as the scan does.
void walkTree(const files::HeldDirectory& root, const OnDirectory& onDirectory,
              const OnUnlisted& onUnlisted);
/// As above; throws std::system_error at the first directory that cannot be listed.
void walkTree(const files::HeldDirectory& root, const OnDirectory& onDirectory,
              Keep keep = Keep::kAll);

}  // namespace host
