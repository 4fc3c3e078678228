#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

/// What one vaultctl said, on both outputs, and how it ended.
struct Ended {
    int status = -1;  ///< minus the signal's number when one ended it
    std::string output;
    /// The events of a --json run; throws when a line is no JSON.
    [[nodiscard]] std::vector<nlohmann::json> events() const;
    [[nodiscard]] nlohmann::json event(const std::string& name) const;
    [[nodiscard]] bool says(const std::string& text) const {
        return output.find(text) != std::string::npos;
    }
};

/// A running vaultctl on a pseudo-terminal.
class Vaultctl {
  public:
    explicit Vaultctl(const std::vector<std::string>& arguments);
    ~Vaultctl();
    void type(char key);
    void kill() const;
    Ended finish();

  private:
    pid_t pid_ = -1;
    android::base::unique_fd terminal_;
};

/// A folder with a tree "box", an empty "box_enc", and real runs on them.
class HostTest : public ::testing::Test {
  protected:
    /// Path below the root ("" for the root) to mode, owner, time, size and contents.
    using Snapshot = std::map<std::string, std::string>;

    HostTest();
    ~HostTest() override;

    static void write(const std::filesystem::path& file, const std::string& contents);
    static std::string read(const std::filesystem::path& file);
    static Snapshot snapshot(const std::filesystem::path& root);

    /// `vaultctl COMMAND box EXTRA...`, to its end; encrypt and decrypt with --allow-plain.
    [[nodiscard]] std::vector<std::string> command(
        const std::string& words, const std::vector<std::string>& extra = {}) const;
    [[nodiscard]] Ended run(const std::string& words,
                            const std::vector<std::string>& extra = {}) const;

    /// The command with faults.cpp preloaded and its variables set.
    static std::vector<std::string> withFaults(const std::vector<std::string>& command,
                                               const std::vector<std::string>& faults);

    /// Starts an encryption on a slow disk and returns its worker's process while that copies
    /// `path`, a large file that this makes below the source.
    [[nodiscard]] pid_t startAndMeet(const std::string& path, std::unique_ptr<Vaultctl>& host);

    static constexpr uintmax_t kLargeFile = 24 << 20;  ///< more than a second on the slow disk
    std::filesystem::path folder, box, enc;
};
