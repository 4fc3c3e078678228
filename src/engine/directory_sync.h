#pragma once

#include <string>

#include <android-base/unique_fd.h>

/// Makes the names in one directory durable: what was created, renamed or removed there before a
/// successful sync is still so after a power cut. For one thread.
class DirectorySync {
  public:
    explicit DirectorySync(const std::string& path) : path_(path) {}

    /// Syncs the directory, opening it on the first call. Returns 0, or a negated errno (logged,
    /// and errno holds it too). A directory that cannot be opened for reading, or whose file
    /// system cannot sync directories (EINVAL), is passed over with 0: the move then has the
    /// durability that this file system gives.
    [[nodiscard]] int sync();

  private:
    std::string path_;
    bool opened_ = false;
    android::base::unique_fd fd_;
};
