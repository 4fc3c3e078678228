#pragma once

#include <cstdint>
#include <string>

/// The worker's command line, parsed.
struct Arguments {
    std::string version;     ///< Interface version; begins with the digit 1.
    int32_t action = 0;      ///< 0 scan, 1 encrypt, 2 decrypt; others parse too.
    std::string path;        ///< Root of the plain tree, as given (may be empty).
    int32_t cmdFd = -1;      ///< Read end of the command pipe.
    int32_t statusFd = -1;   ///< Write end of the status pipe.
    uint64_t baseSize = 0;   ///< Progress count that earlier runs of the job reached.
    uint64_t totalSize = 0;  ///< Size of the whole job, in the same measure.
};

/// Checks and parses the command line from left to right. At the first argument that breaks a rule
/// it logs one record of severity ERROR and returns false; `arguments` is then filled only up to
/// that argument.
[[nodiscard]] bool parseArguments(int argc, const char* const* argv, Arguments* arguments);
