#pragma once

#include <cstdint>
#include <string>

#include "channel/communicator.h"

/// The decrypt action: moves all listed files of the encrypted tree back into the plain one.
class Decrypter : public Communicator {
  public:
    /// Runs the action on the plain tree's root `path`; the other arguments are those of the
    /// command line. True when every file was moved, or when the host paused the run.
    [[nodiscard]] static bool decrypt(int32_t cmdFd, int32_t statusFd, const std::string& path,
                                      uint64_t baseSize, uint64_t totalSize);

  private:
    using Communicator::Communicator;

    [[nodiscard]] bool decryptInternal(const std::string& relDir);

    std::string path;
};
