#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <thread>

#include "host_fixture.h"

namespace fs = std::filesystem;

namespace {

/// The names in `directory` as the listing gives them, which is the order they are moved in.
std::vector<std::string> listed(const fs::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) {
        names.push_back(entry.path().filename().string());
    }
    return names;
}

TEST_F(HostTest, CtrlCAfterTenFilesPausesAndTheNextRunCarriesOn) {
    for (char name = 'a'; name < 'p'; ++name) {
        write(box / std::string(1, name), std::string(100000, name));
    }
    const std::string eleventh = listed(box).at(10);
    std::unique_ptr<Vaultctl> host;
    ASSERT_GT(startAndMeet(eleventh, host), 0);
    host->type('\x03');
    const Ended paused = host->finish();
    EXPECT_EQ(paused.status, 3) << paused.output;
    EXPECT_TRUE(paused.says("carries on")) << paused.output;
    EXPECT_TRUE(paused.says("\rencrypt   0% [....") && paused.says(" MiB\033[K")) << paused.output;
    ASSERT_EQ(read(box / ".ecryptfs_process").at(8), '\n') << "ten entries were to be done";

    const Ended status = run("status", {"--json"});
    EXPECT_EQ(status.event("status").at("files_left"), 5);
    EXPECT_EQ(run("decrypt").status, 2);
    fs::rename(enc, folder / "away");
    fs::create_directory(enc);
    EXPECT_EQ(run("encrypt").status, 2) << "not the directory that the move began with";
    fs::remove(enc);
    fs::rename(folder / "away", enc);

    const Ended rest = run("encrypt", {"--json"});
    EXPECT_EQ(rest.status, 0) << rest.output;
    EXPECT_EQ(rest.event("start").at("bytes_done"), 10 * 100001);
    EXPECT_EQ(rest.event("start").at("resumed"), true);
    uint64_t last = 0;
    for (const nlohmann::json& event : rest.events()) {
        if (event.at("event") != "progress") continue;
        EXPECT_GE(event.at("bytes"), last);
        last = event.at("bytes");
        EXPECT_LE(last, event.at("total").get<uint64_t>());
    }
    EXPECT_EQ(listed(enc).size(), 15);
    EXPECT_EQ(fs::file_size(enc / eleventh), kLargeFile);
}

/// The sentences and the exit status after each kind of kill, and the way on.
class Killed : public HostTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(Killed, IsCarriedOnWithoutALoss) {
    const bool host = GetParam() != "worker";
    write(box / "a/one", "one");
    write(box / "two", "two");
    const fs::perms mode = fs::status(box / "two").permissions();
    std::unique_ptr<Vaultctl> first;
    const pid_t worker = startAndMeet("d/large", first);
    const Ended second = run("encrypt");
    EXPECT_EQ(second.status, 2);
    EXPECT_TRUE(second.says("Another vaultctl is at work")) << second.output;
    if (host) {
        first->kill();
        EXPECT_EQ(first->finish().status, -SIGKILL);
        const Ended held = run("encrypt");
        EXPECT_EQ(held.status, 2) << "the worker still holds the lock";
        EXPECT_TRUE(held.says("(process " + std::to_string(worker) + ")")) << held.output;
    }
    if (GetParam() != "host") {
        ASSERT_EQ(kill(worker, SIGKILL), 0);
    }
    if (!host) {
        const Ended ended = first->finish();
        EXPECT_EQ(ended.status, 1);
        EXPECT_TRUE(ended.says("ended by signal 9")) << ended.output;
    }
    Ended rest = run("encrypt");
    for (int i = 0; i < 300 && rest.says("is still moving"); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        rest = run("encrypt");
    }
    EXPECT_EQ(rest.status, 0) << rest.output;
    EXPECT_EQ(read(enc / "a/one") + read(enc / "two"), "onetwo");
    EXPECT_EQ(fs::file_size(enc / "d/large"), kLargeFile);
    EXPECT_EQ(fs::status(enc / "two").permissions(), mode);
}

INSTANTIATE_TEST_SUITE_P(Who, Killed, ::testing::Values("host", "worker", "both"),
                         [](const auto& test) { return test.param; });

/// One program is killed before each of its steps in turn, until a run needs no more steps.
class KilledAtEveryStep : public HostTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(KilledAtEveryStep, ComesToTheSameEnd) {
    const auto make = [&] {
        for (const fs::path& root : {box, enc}) {
            fs::remove_all(root);
            fs::create_directory(root);
        }
        for (const char* const name : {"N", ".N", "a/x", "a/b/y"}) write(box / name, name);
        fs::permissions(box / "a", fs::perms(0710));
        fs::permissions(box / "a/x", fs::perms(0604));
    };
    const auto withoutRoot = [](Snapshot snapshot) {
        snapshot.erase("");  // Its time is put back after the records are gone, in one last step.
        return snapshot;
    };
    int steps = 0;
    for (bool killed = true; killed && steps < 500; ++steps) {
        SCOPED_TRACE(steps + 1);
        make();
        const Snapshot before = withoutRoot(snapshot(box));
        const Ended first =
            Vaultctl(withFaults(command("encrypt"), {"FAULT_KILL_IN=" + GetParam(),
                                                     "FAULT_KILL_AT=" + std::to_string(steps + 1)}))
                .finish();
        killed = first.status != 0;
        const Ended rest = run("encrypt");
        ASSERT_EQ(rest.status, 0) << first.output << rest.output;
        ASSERT_EQ(withoutRoot(snapshot(enc)), before);
    }
    EXPECT_GT(steps, 20) << "the faults did not reach the program";
    EXPECT_LT(steps, 500);
}

INSTANTIATE_TEST_SUITE_P(Who, KilledAtEveryStep, ::testing::Values("vaultctl", "VaultMover"),
                         [](const auto& test) { return test.param; });

/// A file .N in the target can be N's copy or the user's own file. Each case is a state that a
/// kill can leave behind, made by hand while the worker is dead and N is next.
TEST_F(HostTest, NamesThatDifferByADotAreNeverTakenForEachOther) {
    struct Case {
        const char* description;
        std::function<void(const std::string& n)> make;
    };
    const std::vector<Case> cases = {
        {"nothing moved", [](const std::string&) {}},
        {"N under its stash name",
         [&](const std::string& n) { fs::copy_file(box / n, enc / ("." + n)); }},
        {"and gone from the source",
         [&](const std::string& n) { fs::rename(box / n, enc / ("." + n)); }},
        {"N and .N moved, neither recorded",
         [&](const std::string& n) {
             fs::rename(box / n, enc / n);
             fs::rename(box / ("." + n), enc / ("." + n));
         }},
    };
    std::vector<std::string> names;
    for (const char stem : std::string("abcdefgh")) {
        for (const char* const dots : {"..", ".", ""}) names.push_back(std::string(dots) + stem);
    }
    for (const Case& state : cases) {
        SCOPED_TRACE(state.description);
        for (const fs::path& root : {box, enc}) {
            fs::remove_all(root);
            fs::create_directory(root);
        }
        for (const std::string& name : names) write(box / name, "I am " + name);
        std::unique_ptr<Vaultctl> host;
        const pid_t worker = startAndMeet("sub/large", host);
        host->kill();
        EXPECT_EQ(host->finish().status, -SIGKILL);
        ASSERT_EQ(kill(worker, SIGKILL), 0);
        const std::string list = read(box / ".ecryptfs_process").substr(65);
        state.make(list.substr(0, list.find('\n')));
        const Ended rest = run("encrypt");
        ASSERT_EQ(rest.status, 0) << rest.output;
        for (const std::string& name : names) EXPECT_EQ(read(enc / name), "I am " + name);
    }
}

}  // namespace
