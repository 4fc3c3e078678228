#include "client/worker_client.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <utility>

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>

namespace vaultmover {
namespace {

using android::base::unique_fd;

constexpr size_t kErrorLinesKept = 5;
constexpr int kLogPipeSize = 1 << 20;
/// Milliseconds. Small files in memory make a line each, in less time than it takes to wake whoever
/// waits for it, and that is time of the worker's. So its lines gather for a moment.
constexpr int kGathering = 20;

[[noreturn]] void throwErrno(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

struct PipeEnds {
    unique_fd read;
    unique_fd write;
};

PipeEnds openPipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throwErrno("cannot make a pipe");
    return {unique_fd(ends[0]), unique_fd(ends[1])};
}

/// Cuts what a pipe brings into lines.
class LineReader {
  public:
    explicit LineReader(unique_fd pipe) : pipe_(std::move(pipe)) {}
    [[nodiscard]] int descriptor() const { return pipe_.get(); }

    /// One read; hands over each complete line, and at the end what is left. Closes at the end.
    void read(const std::function<void(const std::string&)>& each) {
        std::array<char, 4096> bytes{};
        const ssize_t count = TEMP_FAILURE_RETRY(::read(pipe_.get(), bytes.data(), bytes.size()));
        if (count <= 0) {
            if (!rest_.empty()) each(rest_);
            pipe_.reset();
            return;
        }
        rest_.append(bytes.data(), static_cast<size_t>(count));
        size_t begin = 0;
        for (size_t end = rest_.find('\n'); end != std::string::npos;
             end = rest_.find('\n', begin)) {
            each(rest_.substr(begin, end - begin));
            begin = end + 1;
        }
        rest_.erase(0, begin);
    }

  private:
    unique_fd pipe_;
    std::string rest_;
};

/// The attributes and descriptor plan of one posix_spawn.
struct SpawnPlan {
    posix_spawnattr_t attributes{};
    posix_spawn_file_actions_t files{};

    explicit SpawnPlan(const sigset_t& mask) {
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_init(&files);
        sigset_t defaults;
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        posix_spawnattr_setsigdefault(&attributes, &defaults);
        posix_spawnattr_setsigmask(&attributes, &mask);
        posix_spawnattr_setpgroup(&attributes, 0);
        posix_spawnattr_setflags(
            &attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&files);
        posix_spawnattr_destroy(&attributes);
    }
    /// Duplicated onto itself a descriptor loses its close-on-exec flag, in the child alone.
    void keep(int descriptor) { posix_spawn_file_actions_adddup2(&files, descriptor, descriptor); }
    void redirect(int from, int to) { posix_spawn_file_actions_adddup2(&files, from, to); }
};

/// A running worker and the host's ends of its pipes.
class Worker {
  public:
    explicit Worker(const WorkerCall& call) {
        PipeEnds commands = openPipe();
        PipeEnds status = openPipe();
        PipeEnds log = openPipe();
        // While the host is stopped (Ctrl-Z) nobody reads the log, and a worker waits where it is
        // full. A size that is refused leaves the usual one.
        (void)fcntl(log.write.get(), F_SETPIPE_SZ, kLogPipeSize);
        SpawnPlan plan(call.signalMask);
        plan.keep(commands.read.get());
        plan.keep(status.write.get());
        for (const int descriptor : call.inherited) plan.keep(descriptor);
        plan.redirect(log.write.get(), STDOUT_FILENO);
        plan.redirect(log.write.get(), STDERR_FILENO);
        std::vector<std::string> arguments = {call.executable,
                                              "1",
                                              std::to_string(static_cast<int>(call.action)),
                                              call.root,
                                              std::to_string(commands.read.get()),
                                              std::to_string(status.write.get()),
                                              std::to_string(call.baseSize),
                                              std::to_string(call.totalSize)};
        std::vector<char*> argv;
        argv.reserve(arguments.size() + 1);
        for (std::string& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        const int error = posix_spawn(&pid_, call.executable.c_str(), &plan.files, &plan.attributes,
                                      argv.data(), environ);
        if (error != 0) {
            throw std::system_error(error, std::generic_category(),
                                    "cannot start " + call.executable);
        }
        commands_ = std::move(commands.write);
        status_ = LineReader(std::move(status.read));
        log_ = LineReader(std::move(log.read));
    }

    [[nodiscard]] pid_t pid() const { return pid_; }
    LineReader& status() { return status_; }
    LineReader& log() { return log_; }

    [[nodiscard]] int commands() const { return commands_.get(); }

    /// Its wait status. The command pipe stays open until then: its end is no command.
    [[nodiscard]] int wait() {
        int status = 0;
        if (TEMP_FAILURE_RETRY(waitpid(pid_, &status, 0)) != pid_) {
            throwErrno("cannot wait for the worker");
        }
        return status;
    }

  private:
    pid_t pid_ = -1;
    unique_fd commands_;
    LineReader status_{unique_fd()};
    LineReader log_{unique_fd()};
};

/// "VaultMover E 11-22 19:53:14 ..." is an error line.
bool isErrorLine(const std::string& line) {
    const size_t severity = line.find(' ') + 1;
    return line.compare(severity, 2, "E ") == 0;
}

/// What the host does not want to know it is not told.
template <typename Told, typename... What>
void tell(const Told& told, What&... what) {
    if (told) told(what...);
}

/// Reads one status line into `outcome`, or returns the bytes done that it reports.
std::optional<uint64_t> takeStatusLine(const std::string& line, WorkerOutcome& outcome) {
    const std::vector<std::string> words = android::base::Split(line, " ");
    const auto number = [&words](size_t index) {
        uint64_t value = 0;
        return index < words.size() && android::base::ParseUint(words[index], &value) ? value : 0;
    };
    if (words[0] == "progress" || words[0] == "record_progress") return number(1);
    if (words[0] == "total_size") outcome.totalSize = number(1);
    if (words[0] == "error" && words.size() > 1 && words[1] == "nospace") {
        outcome.noSpace = {.needed = number(2), .free = number(3)};
    }
    if (words[0] == "error" && words.size() > 2 && words[1] == "crypto") {
        int code = 0;
        if (android::base::ParseInt(words[2], &code)) outcome.transferError = code;
    }
    return std::nullopt;
}

/// Until the worker has closed both of its pipes, which it does by ending.
void follow(Worker& worker, WorkerControl& control, const WorkerEvents& events,
            WorkerOutcome& outcome) {
    bool gathering = false;
    while (worker.status().descriptor() >= 0 || worker.log().descriptor() >= 0) {
        const short lines = gathering ? 0 : POLLIN;  // the end of a pipe is told in any case
        std::array<pollfd, 3> watched = {{{worker.status().descriptor(), lines, 0},
                                          {worker.log().descriptor(), lines, 0},
                                          {events.descriptor, POLLIN, 0}}};
        if (poll(watched.data(), watched.size(), gathering ? kGathering : -1) < 0) {
            if (errno == EINTR) continue;
            throwErrno("cannot wait for the worker");
        }
        gathering = !gathering && (watched[0].revents != 0 || watched[1].revents != 0);
        if (watched[0].revents != 0) {
            worker.status().read([&](const std::string& line) {
                tell(events.statusLine, line);
                if (const auto done = takeStatusLine(line, outcome)) tell(events.progress, *done);
            });
        }
        if (watched[1].revents != 0) {
            worker.log().read([&](const std::string& line) {
                if (isErrorLine(line)) outcome.errors.push_back(line);
                if (outcome.errors.size() > kErrorLinesKept) outcome.errors.pop_front();
                tell(events.logLine, line);
            });
        }
        if (watched[2].revents != 0) tell(events.ready, control);
    }
}

}  // namespace

void WorkerControl::pause() {
    stopAsked_ = true;
    // A worker that has just ended reads no more; its end is seen in any case.
    (void)android::base::WriteStringToFd("pause\n", android::base::borrowed_fd(commands_));
}

void WorkerControl::kill() {
    stopAsked_ = true;
    (void)::kill(worker_, SIGKILL);  // It is not reaped yet: the number is its own.
}

WorkerOutcome runWorker(const WorkerCall& call, const WorkerEvents& events) {
    WorkerOutcome outcome;
    Worker worker(call);
    WorkerControl control(worker.pid(), worker.commands());
    const pid_t pid = worker.pid();
    tell(events.started, pid);
    follow(worker, control, events, outcome);
    const int status = worker.wait();
    outcome.succeeded = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    outcome.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    outcome.stopAsked = control.stopAsked();
    return outcome;
}

}  // namespace vaultmover
