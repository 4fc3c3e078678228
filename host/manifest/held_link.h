#pragma once

#include <sys/stat.h>

#include <string>

#include <android-base/unique_fd.h>

#include "files/held_directory.h"
#include "manifest/metadata.h"

namespace host {

/// What stands at a name, if it is a symbolic link: held, and read without being followed. Where
/// the reading changes the link's time of access, that is put back.
class HeldLink {
  public:
    HeldLink(const files::HeldDirectory& directory, const std::string& name);

    /// 0, or the errno of the look; EINVAL for what is no link.
    [[nodiscard]] int error() const { return error_; }
    /// Where it leads to.
    [[nodiscard]] const std::string& text() const { return text_; }
    /// As it was before it was read.
    [[nodiscard]] const struct stat& status() const { return status_; }

    /// "owner" and "time", as far as they are not what the metadata says.
    [[nodiscard]] std::string differences(const Metadata& metadata) const;
    /// Gives owner and times, on the terms of host::putBack(); a link has no mode.
    [[nodiscard]] PutBack putBack(const Metadata& metadata) const;

  private:
    [[nodiscard]] bool read(const files::HeldDirectory& directory, const std::string& name);

    android::base::unique_fd place_;
    struct stat status_ {};
    std::string text_;
    int error_ = 0;
};

/// Whether a link stands there that leads where `wanted` leads; false also where that is not known.
[[nodiscard]] bool isSameLink(const HeldLink& link, const std::string& text);

}  // namespace host
