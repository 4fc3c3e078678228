#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

/// Keeps what is logged while it lives, as "E message" and the like, instead of printing it.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    std::vector<std::string> records;
};

/// What one run of the worker left behind.
struct RunResult {
    int exitStatus = -1;  ///< Minus the signal's number when one ended the worker.
    std::vector<std::string> status;
    std::vector<std::string> log;  ///< "I message" and the like.
};

/// The real executable on two real pipes, which are its standard input and output.
class WorkerProcess {
  public:
    explicit WorkerProcess(const std::vector<std::string>& arguments);
    ~WorkerProcess();
    void send(const std::string& commands);
    /// The next status line; empty when the worker has closed its end.
    std::string readLine();
    void closeStatus() { status_.reset(); }
    /// Reads the rest and waits for the end.
    RunResult finish();

  private:
    pid_t pid_ = -1;
    android::base::unique_fd commands_;
    android::base::unique_fd commandEnd_;  ///< Kept, so that a command may come too late.
    android::base::unique_fd status_;
    std::string pending_;
    std::filesystem::path log_;
    RunResult result_;
};

/// Two trees in a folder of their own: "box" and "box_enc".
class WorkerTest : public ::testing::Test {
  protected:
    using Files = std::map<std::string, std::string>;  ///< Relative path to contents.

    WorkerTest();
    ~WorkerTest() override;

    void emptyTrees() const;
    static void write(const std::filesystem::path& file, const std::string& contents);
    static std::string read(const std::filesystem::path& file);
    /// All regular files below `directory`, hidden ones too.
    static Files filesIn(const std::filesystem::path& directory);
    /// A process file with the entries `names`, the first `done` of them dealt with.
    static std::string processFile(const std::vector<std::string>& names, uint32_t done = 0);

    /// Runs one action (0 scan, 1 encrypt, 2 decrypt) on `path`, or on the plain tree.
    [[nodiscard]] RunResult run(int action, const std::filesystem::path& path = "") const;
    [[nodiscard]] std::vector<std::string> command(int action,
                                                   const std::filesystem::path& path = "") const;
    void makeTargetDirectories() const;  ///< Gives box_enc the directories of box.

    std::filesystem::path folder, box, enc;
};
