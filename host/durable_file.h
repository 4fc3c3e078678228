#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <android-base/unique_fd.h>

namespace host {

/// Replaces the file at `path` as one step that survives a power cut: written under a name beside
/// it, synced, renamed over it, and the directory synced. Until commit() the old file stands.
/// Every operation throws std::system_error when the disk refuses.
class DurableFile {
  public:
    explicit DurableFile(std::string path);
    void append(std::string_view bytes);
    void commit();

  private:
    void flush();

    std::string path_;
    android::base::unique_fd file_;
    std::string buffer_;
};

void replaceDurably(const std::string& path, std::string_view bytes);
/// Removes the file if it is there, and makes that last.
void removeDurably(const std::string& path);
/// A file system that cannot sync directories (EINVAL) is passed over.
void syncDirectory(const std::string& path);
/// The whole file, or nothing when there is none.
[[nodiscard]] std::optional<std::string> readIfThere(const std::string& path);

/// Throws std::system_error from errno; `what` says what was attempted and on what.
[[noreturn]] void throwErrno(const std::string& what);

}  // namespace host
