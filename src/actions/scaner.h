#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "channel/communicator.h"
#include "files/held_directory.h"

class ProccessGenerater;

/// The scan action: writes a fresh process file into every directory of a tree, measures the
/// tree's files, and tells the host their total, or that the largest would not fit.
class Scaner : public Communicator {
  public:
    /// Runs one scan of the tree under `path`. True means a scanned tree with enough room, or a
    /// pause that found no failure. Sends at most one status line.
    [[nodiscard]] static bool scan(int32_t cmdFd, int32_t statusFd, const std::string& path);

  private:
    using Communicator::Communicator;

    /// Writes the process file of the directory `relDir` ("" for the root, else "/a/b"), then those
    /// of all directories below it, raising maxFileSize and scanTotalSize by what it finds. False
    /// after the first failure, which ends the walk; a pause ends it too, with the result so far.
    /// Each directory is opened from the root down and closed before the next one, so that the
    /// depth of the tree costs no descriptors.
    [[nodiscard]] bool scanInternal(const std::string& relDir);

    /// One directory of the walk: fills `subdirectories` with names in listing order.
    [[nodiscard]] bool listDirectory(const std::string& relDir,
                                     std::vector<std::string>* subdirectories);
    [[nodiscard]] bool addFile(const files::HeldDirectory& directory, const std::string& name,
                               ProccessGenerater* writer);

    [[nodiscard]] bool reportWalk(bool walked);

    std::string path;
    files::HeldDirectory root;   ///< The directory at `path`.
    uint64_t freeSize = 0;       ///< Bytes free on the tree's file system, before the walk.
    uint64_t maxFileSize = 0;    ///< Largest file met: its bytes plus the length of its name.
    uint64_t scanTotalSize = 0;  ///< All files met, in the same measure.
};
