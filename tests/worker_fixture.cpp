#include "worker_fixture.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>

namespace fs = std::filesystem;

namespace {

std::vector<std::string> logRecords(const fs::path& file) {
    std::vector<std::string> records;
    std::ifstream stream(file);
    for (std::string line; std::getline(stream, line);) {
        const size_t text = line.find("] ");
        if (!android::base::StartsWith(line, "VaultMover ") || text == std::string::npos) continue;
        records.push_back(line.substr(11, 2) + line.substr(text + 2));
    }
    return records;
}

}  // namespace

LogCapture::LogCapture() {
    android::base::SetMinimumLogSeverity(android::base::VERBOSE);
    // The base library makes its lock on first use, which the thread sanitizer must see happen
    // before any listener thread starts.
    LOG(INFO) << "capturing";
    android::base::SetLogger([this](android::base::LogId, android::base::LogSeverity severity,
                                    const char*, const char*, unsigned, const char* message) {
        records.push_back(std::string(1, "VDIWEFF"[severity]) + " " + message);
    });
}

LogCapture::~LogCapture() { android::base::SetLogger(android::base::StderrLogger); }

WorkerProcess::WorkerProcess(const std::vector<std::string>& arguments) {
    android::base::unique_fd statusEnd;
    EXPECT_TRUE(android::base::Pipe(&commandEnd_, &commands_));
    EXPECT_TRUE(android::base::Pipe(&status_, &statusEnd));
    log_ = fs::temp_directory_path() / ("worker_log_" + std::to_string(getpid()));
    std::vector<std::string> words = android::base::Split(android::base::Trim(WORKER_COMMAND), " ");
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        const int log = open(log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (dup2(commandEnd_.get(), STDIN_FILENO) == 0 &&
            dup2(statusEnd.get(), STDOUT_FILENO) == 1 && dup2(log, STDERR_FILENO) == 2) {
            execv(argv[0], argv.data());
        }
        _exit(127);
    }
}

WorkerProcess::~WorkerProcess() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        finish();
    }
    fs::remove(log_);
}

void WorkerProcess::send(const std::string& commands) {
    EXPECT_TRUE(android::base::WriteStringToFd(commands, commands_));
}

std::string WorkerProcess::readLine() {
    while (pending_.find('\n') == std::string::npos) {
        char buffer[4096];
        const ssize_t got = status_.ok() ? ::read(status_.get(), buffer, sizeof(buffer)) : 0;
        if (got <= 0) return "";
        pending_.append(buffer, static_cast<size_t>(got));
    }
    const size_t end = pending_.find('\n');
    result_.status.push_back(pending_.substr(0, end));
    pending_.erase(0, end + 1);
    return result_.status.back();
}

RunResult WorkerProcess::finish() {
    while (!readLine().empty()) continue;
    int ended = 0;
    EXPECT_EQ(pid_, waitpid(pid_, &ended, 0));
    pid_ = -1;
    result_.exitStatus = WIFEXITED(ended) ? WEXITSTATUS(ended) : -WTERMSIG(ended);
    result_.log = logRecords(log_);
    return result_;
}

WorkerTest::WorkerTest() {
    std::string pattern = fs::temp_directory_path() / "worker_test_XXXXXX";
    folder = mkdtemp(pattern.data());
    box = folder / "box";
    enc = folder / "box_enc";
    emptyTrees();
}

WorkerTest::~WorkerTest() { fs::remove_all(folder); }

void WorkerTest::emptyTrees() const {
    for (const fs::path& root : {box, enc}) {
        fs::remove_all(root);
        fs::create_directory(root);
    }
}

void WorkerTest::write(const fs::path& file, const std::string& contents) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << contents;
}

std::string WorkerTest::read(const fs::path& file) {
    std::ostringstream contents;
    contents << std::ifstream(file, std::ios::binary).rdbuf();
    return contents.str();
}

WorkerTest::Files WorkerTest::filesIn(const fs::path& directory) {
    Files files;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        if (!entry.is_regular_file()) continue;
        files[fs::relative(entry.path(), directory)] = read(entry.path());
    }
    return files;
}

std::string WorkerTest::processFile(const std::vector<std::string>& names, uint32_t done) {
    std::string file(64, '\0');
    for (size_t i = 0; i < 4; ++i) file[8 + i] = static_cast<char>(done >> (8 * i) & 0xff);
    file += '\n';
    for (const std::string& name : names) file += name + '\n';
    return file;
}

std::vector<std::string> WorkerTest::command(int action, const fs::path& path) const {
    return {"1", std::to_string(action), path.empty() ? box : path, "0", "1", "0", "1000"};
}

RunResult WorkerTest::run(int action, const fs::path& path) const {
    return WorkerProcess(command(action, path)).finish();
}

void WorkerTest::makeTargetDirectories() const {
    fs::copy(box, enc, fs::copy_options::recursive | fs::copy_options::directories_only);
}
