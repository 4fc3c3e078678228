#pragma once

#include <functional>
#include <string>

#include "engine/copy_file.h"
#include "files/held_directory.h"

/// Told (bytes needed, bytes free) when a file does not fit.
using NoSpaceCallback = std::function<void(unsigned long, unsigned long)>;

/// Moves single files of one source directory into one target directory, so that a move stopped
/// at any point is finished by asking for the same name again. The directories and callbacks must
/// outlive the object. For one thread.
class FileMover {
  public:
    enum class Result { kDone, kPaused, kFailed };

    /// `progress` and `nospace` may be empty, `isPaused` must not.
    FileMover(const files::HeldDirectory& source, const files::HeldDirectory& target,
              const ProgressCallback& progress, const PauseQuery& isPaused,
              const NoSpaceCallback& nospace);

    /// Moves the file `name`, or finishes an interrupted move of it. kDone also when there is
    /// nothing left to move. On kFailed (logged) `error` holds a negated errno, and the file's
    /// bytes are whole under its base, stash or target name; on kPaused the source is untouched.
    [[nodiscard]] Result move(const std::string& name, int& error);

    /// Makes the names on both sides durable. False, with a negated errno in `error`, on failure.
    [[nodiscard]] bool syncNames(int& error);

  private:
    struct Names;
    struct Look;

    Result transfer(const Names& names, const Look& base, const Look& stash, int& error);
    Result commit(const Names& names, const Look& base, int& error);
    android::base::unique_fd createIntermediate(const Names& names, const Look& stash, int& error);
    bool checkBase(const Names& names, const Look& base, int& error);
    bool copy(const Names& names, android::base::unique_fd intermediate, int& error);
    bool renameInTarget(const std::string& from, const std::string& to, int& error);

    const files::HeldDirectory& source_;
    const files::HeldDirectory& target_;
    const ProgressCallback& progress_;
    const PauseQuery& isPaused_;
    const NoSpaceCallback& nospace_;
};
