#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>
#include <nlohmann/json.hpp>

#include "../worker_fixture.h"

/// What one vaultctl said, on both outputs, and how it ended.
struct Ended {
    int status = -1;  ///< minus the signal's number when one ended it
    std::string output;
    /// Those of a --json run that have this name; throws when a line is no JSON.
    [[nodiscard]] std::vector<nlohmann::json> events(const std::string& name) const;
    [[nodiscard]] bool says(const std::string& text) const {
        return output.find(text) != std::string::npos;
    }
};

/// A command that runs on a pseudo-terminal.
struct Vaultctl {
    explicit Vaultctl(const std::string& commandLine);
    void type(char key) const;
    Ended finish();

    pid_t pid = -1;
    pid_t worker = -1;  ///< once met
    android::base::unique_fd terminal;
};

/// Real runs of vaultctl on the two trees.
class HostTest : public WorkerTest {
  protected:
    /// Path below the root to mode, owner, times, attributes and contents.
    using Snapshot = std::map<std::string, std::string>;
    static Snapshot snapshot(const std::filesystem::path& root);

    /// `vaultctl WORDS box`, with --allow-plain where that is taken.
    [[nodiscard]] std::string command(const std::string& words) const;
    [[nodiscard]] Ended run(const std::string& words) const;
    /// Encrypts as soon as no worker without its host is at it any more.
    [[nodiscard]] Ended carryOn() const;
    /// The command below strace, which makes system calls fail, kill or take long.
    static std::string traced(const std::string& options, const std::string& command);

    /// Starts an encryption on a slow disk and returns while its worker copies `path`, a file that
    /// this makes below the source; 256 KiB of it take 0.2 s. All of the source is in `files`.
    [[nodiscard]] Vaultctl startSlowly(const std::string& path, size_t size = 4 << 20);
    /// Runs `vaultctl WORDS` on a slow disk and returns while its worker makes `copy`.
    [[nodiscard]] Vaultctl meet(const std::string& words, std::filesystem::path copy) const;
    Files files;
};
