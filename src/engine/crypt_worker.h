#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "engine/file_mover.h"
#include "files/held_directory.h"
#include "records/process_header.h"

/// Moves the files that one directory's process file lists from the source tree to the target
/// tree, one at a time and resumably. Built, initialised, run once and destroyed for each
/// directory, all on the action's thread.
class CryptWorker {
  public:
    /// `relative` is the directory below the plain tree's root `root`: empty for the root itself,
    /// else "/" and a name for each level. `encrypt` selects the direction: out of the plain tree,
    /// or out of the encrypted tree beside it.
    CryptWorker(const std::string& root, const std::string& relative, bool encrypt);

    /// The same with both directories already held: `plain` below `root`, `encrypted` below the
    /// other root. The paths are then used in messages alone.
    CryptWorker(const std::string& root, const std::string& relative, bool encrypt,
                files::HeldDirectory plain, files::HeldDirectory encrypted);

    CryptWorker(const CryptWorker&) = delete;
    CryptWorker& operator=(const CryptWorker&) = delete;

    /// Removes the process file when every entry has been dealt with, and keeps it otherwise.
    ~CryptWorker();

    /// The directory that files are moved out of.
    [[nodiscard]] std::string getSourcePath() const;

    /// The directory that files are moved into.
    [[nodiscard]] std::string getTargetPath() const;

    /// Loads the source directory's process file and positions at the first entry not yet done.
    /// True when crypto may run, also when there is nothing to do, as in a source that is not
    /// there or no directory. False, logged, when the directory cannot be opened for another
    /// reason, and when the file cannot be read to its end, has no proper header, is a link or
    /// cannot be opened for writing.
    [[nodiscard]] bool init();

    /// Moves the remaining entries. True when none is left or the host paused the run; false, with
    /// a negated errno in `error`, at the first failure: the next run tries that entry again.
    /// `error` is not written otherwise. `progress` and `nospace` may be empty; `nospace` is called
    /// once when a file does not fit, and `error` is then -ENOSPC. `isPaused` must not be empty.
    /// After an init that failed: false with -EBADF, nothing touched.
    [[nodiscard]] bool crypto(const ProgressCallback& progress, const PauseQuery& isPaused,
                              int& error, const NoSpaceCallback& nospace);

  private:
    [[nodiscard]] bool loadProcessFile();
    [[nodiscard]] std::string nextEntry() const;
    void recordEntry();

    std::string rootPath;
    std::string relativePath;
    bool isEncrypt;
    files::HeldDirectory source;  ///< Where files are moved out of.
    files::HeldDirectory target;  ///< Where files are moved into.
    std::string processFile;      ///< Path; empty until init, and after one that could not read it.
    android::base::unique_fd processFd;  ///< Open for writing after a successful init.
    uint64_t fileIndex = 0;              ///< Line of the next entry to deal with.
    std::vector<std::string> files;      ///< Lines of the process file; line 0 is the header.
    ProcessHeader header;
};
