#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <benchmark/benchmark.h>

#include "records/process_file.h"
#include "records/process_header.h"

// Times the worker, as a process of its own, beside other ways to make the same move. Usage: bench
// MEMORY DISK [options of the benchmark library]; MEMORY and DISK are directories in a file system
// of either kind, which get filled.

namespace {

using android::base::StringPrintf;
using android::base::unique_fd;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct Usage {
    double seconds = 0;     // from start to end
    double cpuSeconds = 0;  // user and system
    double peakMemory = 0;  // bytes
};

[[noreturn]] void fail(const std::string& what) {
    perror(what.c_str());
    exit(EXIT_FAILURE);
}

std::string programBeside(const std::string& name) {
    return android::base::GetExecutableDirectory() + "/" + name;
}

double secondsOf(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

// Nothing to read, and nobody reads what it writes.
Usage run(const std::vector<std::string>& command, int expectedExit = EXIT_SUCCESS) {
    std::vector<char*> words(command.size() + 1);  // the last one stays null
    std::transform(command.begin(), command.end(), words.begin(),
                   [](const std::string& word) { return const_cast<char*>(word.c_str()); });
    const auto start = Clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        const int nothing = open("/dev/null", O_RDWR);
        for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            dup2(nothing, standard);
        }
        execvp(words[0], words.data());
        _exit(EXIT_FAILURE);
    }
    int status = 0;
    rusage usage = {};
    if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) ||
        WEXITSTATUS(status) != expectedExit) {
        fail(command[0]);
    }
    return {std::chrono::duration<double>(Clock::now() - start).count(),
            secondsOf(usage.ru_utime) + secondsOf(usage.ru_stime),
            static_cast<double>(usage.ru_maxrss) * 1024};
}

constexpr const char* kScan = "0";
constexpr const char* kEncrypt = "1";

// Its pipes are standard input and output.
Usage runWorker(const char* action, const fs::path& root) {
    return run({programBeside("VaultMover"), "1", action, root, "0", "1", "0", "1"});
}

fs::path encrypted(const fs::path& root) { return root.native() + "_enc"; }

std::string fileName(int number) { return StringPrintf("document_%07d.txt", number); }

void makeTree(const fs::path& root, int fileCount, size_t fileSize) {
    for (const fs::path& directory : {root, encrypted(root)}) {
        fs::remove_all(directory);
        fs::create_directories(directory);
    }
    const std::string block(std::min(fileSize, size_t{262144}), 'x');
    for (int i = 0; i < fileCount; ++i) {
        std::ofstream file(root / fileName(i));
        for (size_t size = 0; size < fileSize; size += block.size()) file << block;
        if (!file.flush()) fail(root);
    }
    // What is still to be written must not be written by the syncs of the run that is timed.
    const unique_fd directory(open(root.c_str(), O_RDONLY | O_DIRECTORY));
    (void)syncfs(directory.get());
}

// What people move has not just been written: its bytes are on the disk alone.
void forgetContents(const fs::path& root) {
    for (const fs::directory_entry& entry : fs::directory_iterator(root)) {
        const unique_fd file(open(entry.path().c_str(), O_RDONLY));
        if (posix_fadvise(file.get(), 0, 0, POSIX_FADV_DONTNEED) != 0) fail(entry.path());
    }
}

struct Tree {
    std::string name;
    fs::path root;
    int fileCount;
    size_t fileSize;
    bool cold = false;  // not in the page cache
};

struct Rival {
    std::string name;
    std::vector<std::string> command;  // to which the two directories are added
    bool needsScan;                    // else the worker's scan is timed with its move
};

Usage timeSide(const Tree& tree, const Rival& rival, bool isWorker) {
    makeTree(tree.root, tree.fileCount, tree.fileSize);
    Usage scan;
    if (isWorker || rival.needsScan) scan = runWorker(kScan, tree.root);
    if (tree.cold) forgetContents(tree.root);
    std::vector<std::string> command = rival.command;
    command.insert(command.end(), {tree.root, encrypted(tree.root)});
    Usage usage = isWorker ? runWorker(kEncrypt, tree.root) : run(command);
    if (isWorker && !rival.needsScan) {
        usage.seconds += scan.seconds;
        usage.cpuSeconds += scan.cpuSeconds;
    }
    return usage;
}

// One pair a repetition, each side first in every other one, so that a machine that slows down
// slows both.
void comparePair(benchmark::State& state, const Tree& tree, const Rival& rival) {
    static bool workerFirst = false;
    workerFirst = !workerFirst;
    Usage worker;
    Usage other;
    for ([[maybe_unused]] auto _ : state) {
        for (const bool isWorker : {workerFirst, !workerFirst}) {
            (isWorker ? worker : other) = timeSide(tree, rival, isWorker);
        }
        state.SetIterationTime(worker.seconds);
    }
    state.counters["worker_s"] = worker.seconds;
    state.counters["other_s"] = other.seconds;
    state.counters["ratio"] = worker.seconds / other.seconds;
    state.counters["cpu_ratio"] = worker.cpuSeconds / other.cpuSeconds;
    fs::remove_all(tree.root);
    fs::remove_all(encrypted(tree.root));
}

// Marks every entry of the list as done: a run then loads the list and moves nothing.
void markDone(const fs::path& root, int fileCount) {
    ProcessHeader header;
    header.number = static_cast<uint32_t>(fileCount);
    const unique_fd list(open((root / process_file::kName).c_str(), O_WRONLY));
    if (!process_file::writeHeader(header, list)) fail(root);
}

// The cost of one entry of a directory with many, beyond that of an empty directory.
void measureEntries(benchmark::State& state, const fs::path& root, bool isScan) {
    const int count = static_cast<int>(state.range(0));
    const auto measure = [&](int fileCount) {
        makeTree(root, fileCount, 0);
        const Usage scan = runWorker(kScan, root);
        if (isScan) return scan;
        markDone(root, fileCount);
        return runWorker(kEncrypt, root);
    };
    for ([[maybe_unused]] auto _ : state) {
        const Usage empty = measure(0);
        const Usage full = measure(count);
        state.SetIterationTime(full.seconds);
        state.counters["entry_us"] = (full.cpuSeconds - empty.cpuSeconds) / count * 1e6;
        // A load keeps the names, which are not counted here.
        const size_t kept = isScan ? 0 : fileName(0).size();
        state.counters["entry_bytes"] =
            (full.peakMemory - empty.peakMemory) / count - static_cast<double>(kept);
    }
    fs::remove_all(root);
    fs::remove_all(encrypted(root));
}

Usage runVaultctl(const fs::path& root, std::vector<std::string> words, int expectedExit) {
    words.insert(words.begin(), programBeside("vaultctl"));
    words.insert(words.end(), {"--allow-plain", "--quiet", root});
    return run(words, expectedExit);
}

// A whole job of the host beside the scan and the move that it consists of.
void compareHost(benchmark::State& state, const fs::path& root) {
    constexpr int kFiles = 20000;
    Usage host;
    Usage scan;
    Usage move;
    for ([[maybe_unused]] auto _ : state) {
        makeTree(root, kFiles, 4096);
        host = runVaultctl(root, {"encrypt"}, EXIT_SUCCESS);
        makeTree(root, kFiles, 4096);
        scan = runWorker(kScan, root);
        move = runWorker(kEncrypt, root);
        state.SetIterationTime(host.seconds);
    }
    const double bare = scan.seconds + move.seconds;
    state.counters["host_s"] = host.seconds;
    state.counters["bare_s"] = bare;
    state.counters["host_ratio"] = host.seconds / bare;
    state.counters["host_bytes"] = host.peakMemory;
    fs::remove_all(root);
    fs::remove_all(encrypted(root));
}

// What the host does before the first file moves, in a directory with a million: it looks, or
// prepares a job, whose move then fails at once.
void measureHost(benchmark::State& state, const fs::path& root, bool onlyLooks) {
    constexpr int kFiles = 1000000;
    constexpr int kFailed = 1;
    const fs::path scanner = root.native() + "-scanner";
    std::ofstream(scanner) << "#!/bin/sh\n[ $2 = 0 ] && exec '" << programBeside("VaultMover")
                           << "' \"$@\"\nexit 1\n";
    fs::permissions(scanner, fs::perms::owner_all);
    for ([[maybe_unused]] auto _ : state) {
        makeTree(root, kFiles, 0);
        const Usage usage = onlyLooks
                                ? runVaultctl(root, {"check", "encrypt"}, EXIT_SUCCESS)
                                : runVaultctl(root, {"encrypt", "--worker", scanner}, kFailed);
        state.SetIterationTime(usage.seconds);
        state.counters["host_s"] = usage.seconds;
        state.counters["host_bytes"] = usage.peakMemory;
    }
    fs::remove(scanner);
    fs::remove_all(root);
    fs::remove_all(encrypted(root));
}

void addBenchmarks(const fs::path& memory, const fs::path& disk) {
    const std::vector<Tree> trees = {
        {"4 KiB x 20000 in memory", memory / "tree", 20000, 4096},
        {"4 KiB x 1000 on disk", disk / "tree", 1000, 4096},
        {"1 GiB in memory", memory / "tree", 1, 1 << 30},
        {"512 MiB on disk", disk / "tree", 1, 1 << 29},
        {"512 MiB on disk, cold", disk / "tree", 1, 1 << 29, true},
        {"256 KiB x 400 on disk, cold", disk / "tree", 400, 1 << 18, true},
    };
    const std::string floor = programBeside("floor");
    const std::vector<Rival> rivals = {
        {"floor", {floor}, true},
        {"floor with looks", {floor, "looks"}, true},
        {"rsync", {"sh", "-c", R"(rsync -r --fsync --remove-source-files "$0/" "$1")"}, false},
        {"cp sync rm", {"sh", "-c", R"(cp -r "$0/." "$1" && sync -f "$1" && rm -r "$0")"}, false},
    };
    for (const Tree& tree : trees) {
        for (const Rival& rival : rivals) {
            // The floors do not read ahead, and cold they would show the disk alone.
            if (tree.cold && rival.needsScan) continue;
            benchmark::RegisterBenchmark(
                (tree.name + "/" + rival.name).c_str(),
                [=](benchmark::State& state) { comparePair(state, tree, rival); })
                ->Iterations(1)
                ->UseManualTime();
        }
    }
    const std::pair<const char*, void (*)(benchmark::State&, const fs::path&)> hosts[] = {
        {"encrypt, 4 KiB x 20000 in memory", compareHost},
        {"check, 1000000 files",
         [](benchmark::State& state, const fs::path& root) { measureHost(state, root, true); }},
        {"preparation, 1000000 files",
         [](benchmark::State& state, const fs::path& root) { measureHost(state, root, false); }}};
    for (const auto& [name, measure] : hosts) {
        benchmark::RegisterBenchmark(
            name,
            [=, measure = measure](benchmark::State& state) { measure(state, memory / "host"); })
            ->Iterations(1)
            ->UseManualTime();
    }
    for (const bool isScan : {true, false}) {
        const auto measure = [=](benchmark::State& state) {
            measureEntries(state, memory / "entries", isScan);
        };
        benchmark::RegisterBenchmark(isScan ? "scan" : "load", measure)
            ->Arg(10000)
            ->Arg(100000)
            ->Arg(1000000)
            ->Repetitions(3)
            ->Iterations(1)
            ->UseManualTime();
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    benchmark::Initialize(&argc, argv);
    if (argc != 3) {
        fprintf(stderr, "usage: bench MEMORY DISK [--benchmark_OPTION...]\n");
        return EXIT_FAILURE;
    }
    addBenchmarks(argv[1], argv[2]);
    benchmark::RunSpecifiedBenchmarks();
}
