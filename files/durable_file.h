#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>

#include <android-base/unique_fd.h>

#include "files/held_directory.h"

namespace files {

/// Replaces a file as one step that survives a power cut: written under a name beside it, synced,
/// renamed over it, and the directory synced. Until commit() the old file stands; without one the
/// new file is removed again. The directory outlives this object. For one thread.
class DurableFile {
  public:
    DurableFile(const HeldDirectory& directory, std::string name);
    DurableFile(const DurableFile&) = delete;
    DurableFile& operator=(const DurableFile&) = delete;
    ~DurableFile();

    /// What cannot be written makes commit() fail.
    void append(std::string_view bytes);
    /// 0, or the negated errno of the first call that failed. Called once, at the end.
    [[nodiscard]] int commit();

    /// Where `name` is written until it is complete; a kill can leave it there.
    [[nodiscard]] static std::string replacementOf(const std::string& name) {
        return name + ".new";
    }

  private:
    void flush();
    void keepErrno(bool succeeded);

    const HeldDirectory& directory_;
    std::string name_;
    android::base::unique_fd file_;
    std::string buffer_;
    int error_ = 0;
    bool renamed_ = false;
};

/// Reads a whole regular file and says what it is; links are refused. 0, or the negated errno.
[[nodiscard]] int readWhole(const HeldDirectory& directory, const std::string& name,
                            std::string* bytes, struct stat* status);

}  // namespace files
