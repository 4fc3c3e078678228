#pragma once

#include <functional>
#include <string>

#include "engine/copy_file.h"
#include "engine/directory_sync.h"

/// Told (bytes needed, bytes free) when a file does not fit.
using NoSpaceCallback = std::function<void(unsigned long, unsigned long)>;

/// Moves single files of one source directory into one target directory, so that a move stopped
/// at any point is finished by asking for the same name again. The callbacks must outlive the
/// object. For one thread.
class FileMover {
  public:
    enum class Result { kDone, kPaused, kFailed };

    /// `progress` and `nospace` may be empty, `isPaused` must not.
    FileMover(const std::string& sourceDirectory, const std::string& targetDirectory,
              const ProgressCallback& progress, const PauseQuery& isPaused,
              const NoSpaceCallback& nospace);

    /// Moves the file `name`, or finishes an interrupted move of it. kDone also when there is
    /// nothing left to move. On kFailed (logged) `error` holds a negated errno, and the file's
    /// bytes are whole under its base, stash or target name; on kPaused the source is untouched.
    [[nodiscard]] Result move(const std::string& name, int& error);

    /// Makes the names on both sides durable. False, with a negated errno in `error`, on failure.
    [[nodiscard]] bool syncNames(int& error);

  private:
    struct Paths;

    Result transfer(const Paths& paths, int& error);
    Result commit(const Paths& paths, int& error);
    bool createIntermediate(const Paths& paths, int& error);
    bool checkBase(const Paths& paths, int& error);
    bool copy(const Paths& paths, int& error);

    std::string sourceDirectory_;
    std::string targetDirectory_;
    const ProgressCallback& progress_;
    const PauseQuery& isPaused_;
    const NoSpaceCallback& nospace_;
    DirectorySync source_;
    DirectorySync target_;
};
