#pragma once

#include <string>

#include <android-base/unique_fd.h>

#include "files/held_directory.h"

/// Writes the process file of one directory: the header by init, then one entry per pushNewFile.
/// The file is synced after the header and when the writer is destroyed. For one thread.
class ProccessGenerater {
  public:
    /// `directory` must outlive the writer.
    explicit ProccessGenerater(const files::HeldDirectory& directory);
    ProccessGenerater(const ProccessGenerater&) = delete;
    ProccessGenerater& operator=(const ProccessGenerater&) = delete;
    ~ProccessGenerater();

    /// Replaces the directory's process file by a new one that holds only a header. False, logged,
    /// when it cannot be created or written; what was written stays.
    [[nodiscard]] bool init();

    /// Appends one entry. False, logged, when it cannot be written. An empty name, or a writer
    /// without a file, is logged and passed over.
    [[nodiscard]] bool pushNewFile(const std::string& name);

  private:
    const files::HeldDirectory& directory_;
    android::base::unique_fd fd_;
};
