#pragma once

#include <concepts>
#include <memory>
#include <string>

#include "files/held_directory.h"

/// A file that an operation is to work on: a name in a directory that is held open, or a path,
/// whose directory is then opened for the operation.
class FileArgument {
  public:
    /// `directory` must outlive the argument.
    FileArgument(const files::HeldDirectory& directory, std::string name);

    /// Not explicit: a path can be given wherever a file is asked for.
    template <std::convertible_to<std::string> Path>
    // cppcheck-suppress noExplicitConstructor
    FileArgument(const Path& path)  // NOLINT(google-explicit-constructor)
        : FileArgument(ByPath{path}) {}

    [[nodiscard]] const files::HeldDirectory& directory() const { return *directory_; }
    [[nodiscard]] const std::string& name() const { return name_; }
    /// For messages.
    [[nodiscard]] std::string path() const {
        return path_.empty() ? directory_->pathOf(name_) : path_;
    }

  private:
    struct ByPath {
        std::string path;
    };
    explicit FileArgument(const ByPath& file);

    std::shared_ptr<const files::HeldDirectory> directory_;
    std::string name_;
    std::string path_;  ///< As it was given; empty for a name in a held directory.
};
