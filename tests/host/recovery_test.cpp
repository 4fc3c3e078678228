#include <sys/wait.h>

#include <csignal>
#include <functional>

#include "host_fixture.h"

namespace fs = std::filesystem;

namespace {

TEST_F(HostTest, CtrlCAfterTenFilesPausesAndTheNextRunCarriesOn) {
    for (char name = 'a'; name < 'p'; ++name) {
        write(box / std::string(1, name), std::string(1000, name));
    }
    fs::directory_iterator eleventh(box);  // They are moved in the order of the listing.
    for (int i = 0; i < 10; ++i) ++eleventh;
    Vaultctl host = startSlowly(eleventh->path().filename());
    host.type('\x03');
    const Ended paused = host.finish();
    EXPECT_EQ(paused.status, 3) << paused.output;
    EXPECT_TRUE(paused.says("carries on")) << paused.output;
    EXPECT_TRUE(paused.says("\rencrypt   0% [....") && paused.says(" MiB\033[K")) << paused.output;
    EXPECT_EQ(read(box / ".ecryptfs_process").at(8), '\n') << "ten entries were to be done";

    EXPECT_EQ(run("status --json").events("status").at(0).at("files_left"), 5);
    EXPECT_EQ(run("decrypt").status, 2);
    fs::rename(enc, folder / "away");
    fs::create_directory(enc);
    EXPECT_EQ(run("encrypt").status, 2) << "not the directory that the move began with";
    fs::remove(enc);
    fs::rename(folder / "away", enc);

    const Ended rest = run("encrypt --json");
    EXPECT_EQ(rest.status, 0) << rest.output;
    const nlohmann::json start = rest.events("start").at(0);
    EXPECT_EQ(start.at("resumed"), true);
    EXPECT_EQ(start.at("bytes_done"), 10 * 1001);
    uint64_t last = start.at("bytes_done");
    for (const nlohmann::json& event : rest.events("progress")) {
        EXPECT_GE(event.at("bytes"), last);
        last = event.at("bytes");
    }
    EXPECT_EQ(last, start.at("bytes"));
    EXPECT_TRUE(filesIn(enc) == files);
}

/// The sentences and the exit status after each kind of kill, and the way on.
class Killed : public HostTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(Killed, IsCarriedOnWithoutALoss) {
    write(box / "a/one", "one");
    write(box / "two", "two");
    Vaultctl first = startSlowly("d/large");
    const Ended second = run("encrypt");
    EXPECT_EQ(second.status, 2);
    EXPECT_TRUE(second.says("Another vaultctl is at work")) << second.output;
    if (GetParam() != "worker") {
        ASSERT_EQ(kill(first.pid, SIGKILL), 0);
        // Not finish(): strace stays on the terminal for as long as the worker lives.
        ASSERT_EQ(waitpid(first.pid, nullptr, 0), first.pid);
        const Ended held = run("encrypt");
        EXPECT_EQ(held.status, 2) << "the worker still holds the lock";
        EXPECT_TRUE(held.says("(process " + std::to_string(first.worker) + ")")) << held.output;
    }
    if (GetParam() != "host") {
        ASSERT_EQ(kill(first.worker, SIGKILL), 0);
    }
    if (GetParam() == "worker") {
        const Ended ended = first.finish();
        EXPECT_EQ(ended.status, 1);
        EXPECT_TRUE(ended.says("ended by signal 9")) << ended.output;
    }
    const Ended rest = carryOn();
    EXPECT_EQ(rest.status, 0) << rest.output;
    EXPECT_TRUE(filesIn(enc) == files);
}

INSTANTIATE_TEST_SUITE_P(Who, Killed, ::testing::Values("host", "worker", "both"),
                         [](const auto& test) { return test.param; });

/// One program is killed before each of its calls in turn, until a run needs no more of them.
TEST_F(HostTest, KilledAtAnyStepItComesToTheSameEnd) {
    const fs::path worker = folder / "worker";
    const std::pair<bool, std::string> sweeps[] = {
        {true, "mkdir"}, {true, "rmdir"},   {true, "rename"}, {true, "fsync"},  {true, "unlink"},
        {true, "chmod"}, {false, "rename"}, {false, "fsync"}, {false, "unlink"}};
    for (const auto& [host, call] : sweeps) {
        int step = 1;
        for (bool killed = true; killed; ++step) {
            SCOPED_TRACE((host ? "vaultctl " : "worker ") + call + std::to_string(step));
            emptyTrees();
            for (const char* const name : {"N", ".N", "a/x", "a/b/y"}) write(box / name, name);
            fs::permissions(box / "a", fs::perms(0710));
            fs::permissions(box / "a/x", fs::perms(0604));
            const Snapshot before = snapshot(box);
            const std::string kill = "-e trace=" + call + " -e inject=" + call +
                                     ":signal=KILL:when=" + std::to_string(step);
            write(worker, "#!/bin/sh\nexec " + traced(kill, WORKER_COMMAND " \"$@\"\n"));
            fs::permissions(worker, fs::perms::owner_all);
            const Ended first = Vaultctl(host ? traced(kill, command("encrypt"))
                                              : command("encrypt --worker " + worker.string()))
                                    .finish();
            killed = first.status == (host ? -SIGKILL : 1);
            const Ended rest = carryOn();
            ASSERT_EQ(rest.status, 0) << first.output << rest.output;
            ASSERT_EQ(snapshot(enc), before);
        }
        ASSERT_GT(step, 2) << "no kill at " << call;
    }
}

/// A file .N in the target can be N's copy or the user's own file. Each case is a state that a
/// kill can leave behind, made by hand while the worker is dead and N is next.
TEST_F(HostTest, NamesThatDifferByADotAreNeverTakenForEachOther) {
    const std::function<void(const std::string& n)> states[] = {
        [](const std::string&) {},  // nothing moved
        [&](const std::string& n) { fs::copy_file(box / n, enc / ("." + n)); },
        [&](const std::string& n) { fs::rename(box / n, enc / ("." + n)); },
        [&](const std::string& n) {  // both moved, neither recorded
            fs::rename(box / n, enc / n);
            fs::rename(box / ("." + n), enc / ("." + n));
        }};
    for (const auto& makeState : states) {
        SCOPED_TRACE(&makeState - states);
        emptyTrees();
        for (const char stem : std::string("abcdefgh")) {
            for (const char* const dots : {"..", ".", ""}) {
                write(box / (std::string(dots) + stem), std::string(dots) + stem);
            }
        }
        Vaultctl host = startSlowly("sub/large");
        ASSERT_EQ(kill(host.pid, SIGKILL), 0);
        ASSERT_EQ(kill(host.worker, SIGKILL), 0);
        EXPECT_EQ(host.finish().status, -SIGKILL);
        const std::string list = read(box / ".ecryptfs_process").substr(65);
        makeState(list.substr(0, list.find('\n')));
        const Ended rest = carryOn();
        ASSERT_EQ(rest.status, 0) << rest.output;
        EXPECT_TRUE(filesIn(enc) == files);
    }
}

}  // namespace
