#pragma once

#include <dirent.h>

#include <memory>
#include <string>

struct DirectoryCloser {
    void operator()(DIR* directory) const { (void)closedir(directory); }  // nothing was written
};

/// A directory open for listing.
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

/// Opens the directory at `path`; null, with errno set, when it cannot be opened.
[[nodiscard]] inline Directory openDirectory(const std::string& path) {
    return Directory(opendir(path.c_str()));
}

/// Whether `name` is "." or "..".
[[nodiscard]] inline bool isDotEntry(const std::string& name) {
    return name == "." || name == "..";
}
