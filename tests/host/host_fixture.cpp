#include "host_fixture.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <android-base/stringprintf.h>

namespace fs = std::filesystem;

namespace {

/// Every event and member stands in the table of the manual.
void expectDocumented(const nlohmann::json& event) {
    static const std::string manual = [] {
        std::ifstream file(VAULTCTL_MANUAL);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }();
    const std::string word = event.at("event");
    const size_t row = manual.find(android::base::StringPrintf("\n%s;T{", word.c_str()));
    ASSERT_NE(row, std::string::npos) << event;
    const std::string members = manual.substr(row, manual.find("\nT}", row) - row);
    for (const auto& [name, value] : event.items()) {
        const std::string member = name.ends_with("_hex") ? name.substr(0, name.size() - 4) : name;
        if (member == "event") continue;
        EXPECT_THAT(members + " ", ::testing::ContainsRegex(android::base::StringPrintf(
                                       "[ \n]%s[^a-z_]", member.c_str())))
            << event;
    }
}

}  // namespace

std::vector<nlohmann::json> Ended::events(const std::string& name) const {
    std::vector<nlohmann::json> events;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) {
        const nlohmann::json event = nlohmann::json::parse(line);
        expectDocumented(event);
        if (event.at("event") == name) events.push_back(event);
    }
    return events;
}

Vaultctl::Vaultctl(const std::string& commandLine) {
    const std::string line = "exec " + commandLine;
    const winsize size{.ws_row = 24, .ws_col = 90, .ws_xpixel = 0, .ws_ypixel = 0};
    int descriptor = -1;
    pid = forkpty(&descriptor, nullptr, nullptr, &size);
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
        _exit(127);
    }
    terminal.reset(descriptor);
}

void Vaultctl::type(char key) const { ASSERT_EQ(write(terminal.get(), &key, 1), 1); }

Ended Vaultctl::finish() {
    Ended ended;
    const auto readAll = [&] {
        char bytes[4096];
        // A pseudo-terminal ends with an error when the last process on it has gone.
        for (ssize_t count = 0; (count = ::read(terminal.get(), bytes, sizeof bytes)) > 0;) {
            ended.output.append(bytes, static_cast<size_t>(count));
        }
    };
    readAll();
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    readAll();  // the last lines may arrive behind that error
    ended.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return ended;
}

HostTest::Snapshot HostTest::snapshot(const fs::path& root) {
    Snapshot snapshot;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        struct stat status {};
        EXPECT_EQ(lstat(entry.path().c_str(), &status), 0) << entry;
        std::string& row = snapshot[entry.path().lexically_relative(root)];
        row = android::base::StringPrintf("%o %u:%u %ld.%09ld ", status.st_mode, status.st_uid,
                                          status.st_gid, status.st_mtim.tv_sec,
                                          status.st_mtim.tv_nsec);
        char attributes[1000];
        const ssize_t size = llistxattr(entry.path().c_str(), attributes, sizeof attributes);
        row.append(attributes, static_cast<size_t>(std::max<ssize_t>(0, size)));
        // Those of a directory are changed by this listing.
        if (!S_ISDIR(status.st_mode)) row += std::to_string(status.st_atim.tv_sec) + " ";
        if (S_ISREG(status.st_mode)) row += read(entry);
        if (S_ISLNK(status.st_mode)) row += fs::read_symlink(entry);
        const timespec times[] = {status.st_atim, status.st_mtim};
        EXPECT_EQ(utimensat(AT_FDCWD, entry.path().c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }
    return snapshot;
}

std::string HostTest::command(const std::string& words) const {
    const std::string line = "'" VAULTCTL_COMMAND "' " + words + " " + box.string() + "/";
    return words.find("crypt") == std::string::npos ? line : line + " --allow-plain";
}

Ended HostTest::run(const std::string& words) const { return Vaultctl(command(words)).finish(); }

Ended HostTest::carryOn() const {
    Ended ended = run("encrypt");
    while (ended.says("is still moving")) ended = run("encrypt");
    return ended;
}

std::string HostTest::traced(const std::string& options, const std::string& command) {
    // The leak check cannot run under strace.
    return "env ASAN_OPTIONS=detect_leaks=0 strace -qq -o /dev/null " + options + " " + command;
}

Vaultctl HostTest::startSlowly(const std::string& path, size_t size) {
    write(box / path, std::string(size, 'x'));
    files = filesIn(box);
    return meet("encrypt", enc / path);
}

Vaultctl HostTest::meet(const std::string& words, fs::path copy) const {
    copy.replace_filename(".ecryptfs_intermediate_" + copy.filename().string());
    // As its grandchild in a group of its own, strace lets signals and ends through untouched.
    Vaultctl host(traced("-DD -f -e inject=sendfile:delay_enter=200000", command(words)));
    // The host notes the worker's number just after it has started it.
    const auto met = [&] {
        if (!fs::exists(copy)) return false;
        host.worker = nlohmann::json::parse(read(box / ".ecryptfs_job")).at("worker");
        return host.worker > 0 && kill(host.worker, 0) == 0;
    };
    for (int i = 0; i < 10000 && !met(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    // Not an expectation: a signal to process 0 or -1 would go to far more than a worker.
    if (!met()) throw std::runtime_error("the worker was not met in the middle");
    return host;
}
