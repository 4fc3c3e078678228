#include "host_fixture.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <sstream>
#include <thread>

#include <android-base/file.h>

namespace fs = std::filesystem;

std::vector<nlohmann::json> Ended::events() const {
    std::vector<nlohmann::json> events;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) {
        events.push_back(nlohmann::json::parse(line));
    }
    return events;
}

nlohmann::json Ended::event(const std::string& name) const {
    for (const nlohmann::json& event : events()) {
        if (event.at("event") == name) return event;
    }
    return {};
}

Vaultctl::Vaultctl(const std::vector<std::string>& arguments) {
    std::vector<std::string> words = arguments;
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    winsize size{.ws_row = 24, .ws_col = 90, .ws_xpixel = 0, .ws_ypixel = 0};
    int terminal = -1;
    pid_ = forkpty(&terminal, nullptr, nullptr, &size);
    if (pid_ == 0) {
        execv(argv[0], argv.data());
        _exit(127);
    }
    terminal_.reset(terminal);
}

Vaultctl::~Vaultctl() {
    if (pid_ < 0) return;
    kill();
    (void)waitpid(pid_, nullptr, 0);  // Only reached when a test has already failed.
}

void Vaultctl::type(char key) { ASSERT_EQ(write(terminal_.get(), &key, 1), 1); }

void Vaultctl::kill() const { ASSERT_EQ(::kill(pid_, SIGKILL), 0); }

Ended Vaultctl::finish() {
    Ended ended;
    char bytes[4096];
    // A pseudo-terminal ends with an error when the last process on it has gone.
    for (ssize_t count = 0; (count = ::read(terminal_.get(), bytes, sizeof bytes)) > 0;) {
        ended.output.append(bytes, static_cast<size_t>(count));
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
    pid_ = -1;
    ended.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return ended;
}

HostTest::HostTest() {
    std::string path = (fs::temp_directory_path() / "vaultctl.XXXXXX").string();
    folder = mkdtemp(path.data());
    box = folder / "box";
    enc = folder / "box_enc";
    fs::create_directories(box);
    fs::create_directories(enc);
}

HostTest::~HostTest() { fs::remove_all(folder); }

void HostTest::write(const fs::path& file, const std::string& contents) {
    fs::create_directories(file.parent_path());
    ASSERT_TRUE(android::base::WriteStringToFile(contents, file.string())) << file;
}

std::string HostTest::read(const fs::path& file) {
    std::string contents;
    EXPECT_TRUE(android::base::ReadFileToString(file.string(), &contents)) << file;
    return contents;
}

HostTest::Snapshot HostTest::snapshot(const fs::path& root) {
    Snapshot snapshot;
    const auto add = [&](const fs::path& path) {
        struct stat status {};
        ASSERT_EQ(lstat(path.c_str(), &status), 0) << path;
        std::ostringstream text;
        text << std::oct << status.st_mode << std::dec << " " << status.st_uid << ":"
             << status.st_gid << " " << status.st_mtim.tv_sec << "." << status.st_mtim.tv_nsec;
        if (S_ISREG(status.st_mode)) {
            text << " " << status.st_size << " " << std::hash<std::string>()(read(path));
        }
        snapshot[path.string().substr(root.string().size())] = text.str();
    };
    add(root);
    for (const auto& entry : fs::recursive_directory_iterator(root)) add(entry.path());
    return snapshot;
}

std::vector<std::string> HostTest::command(const std::string& words,
                                           const std::vector<std::string>& extra) const {
    std::vector<std::string> result = {VAULTCTL_COMMAND};
    std::istringstream stream(words);
    for (std::string word; stream >> word;) result.push_back(word);
    result.push_back(box.string() + "/");
    result.insert(result.end(), extra.begin(), extra.end());
    if (words != "status") result.push_back("--allow-plain");
    return result;
}

Ended HostTest::run(const std::string& words, const std::vector<std::string>& extra) const {
    return Vaultctl(command(words, extra)).finish();
}

std::vector<std::string> HostTest::withFaults(const std::vector<std::string>& command,
                                              const std::vector<std::string>& faults) {
    // The sanitizers want to be loaded first, which they are not then.
    std::vector<std::string> words = {"/usr/bin/env", "LD_PRELOAD=" FAULTS,
                                      "ASAN_OPTIONS=verify_asan_link_order=0"};
    words.insert(words.end(), faults.begin(), faults.end());
    words.insert(words.end(), command.begin(), command.end());
    return words;
}

pid_t HostTest::startAndMeet(const std::string& path, std::unique_ptr<Vaultctl>& host) {
    write(box / path, "");
    fs::resize_file(box / path, kLargeFile);
    const fs::path copy = enc / fs::path(path).parent_path() /
                          (".ecryptfs_intermediate_" + fs::path(path).filename().string());
    host = std::make_unique<Vaultctl>(withFaults(command("encrypt"), {"FAULT_SLOW=1"}));
    pid_t worker = 0;
    // The host notes the worker's number just after it has started it.
    const auto met = [&] {
        if (!fs::exists(copy)) return false;
        worker = nlohmann::json::parse(read(box / ".ecryptfs_job")).at("worker").get<pid_t>();
        return kill(worker, 0) == 0;
    };
    for (int i = 0; i < 10000 && !met(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(fs::exists(copy)) << "the worker was not met in the middle";
    return worker;
}
