#include <sys/wait.h>

#include <csignal>
#include <functional>

#include "host_fixture.h"

namespace fs = std::filesystem;

namespace {

TEST_F(HostTest, CtrlCAfterTenFilesPausesAndTheNextRunCarriesOn) {
    for (char name = 'a'; name < 'p'; ++name) {
        write(box / std::string(1, name), std::string(100000, name));
    }
    fs::directory_iterator eleventh(box);  // They are moved in the order of the listing.
    for (int i = 0; i < 10; ++i) ++eleventh;
    Vaultctl host = startSlowly(eleventh->path().filename());
    host.type('\x03');
    const Ended paused = host.finish();
    EXPECT_EQ(paused.status, 3) << paused.output;
    EXPECT_TRUE(paused.says("carries on")) << paused.output;
    EXPECT_TRUE(paused.says("encrypt   0% [....") && paused.says("  0 of 15 files\r\033[K"))
        << paused.output;
    EXPECT_EQ(read(box / ".ecryptfs_process").at(8), '\n') << "ten entries were to be done";

    EXPECT_EQ(run("status --json").events("status").at(0).at("files_left"), 5);
    EXPECT_EQ(run("decrypt").status, 2);
    fs::rename(enc, folder / "away");
    fs::create_directory(enc);
    EXPECT_EQ(run("encrypt").status, 2) << "not the directory that the move began with";
    fs::remove(enc);
    fs::rename(folder / "away", enc);
    fs::rename(box, folder / "away");
    for (const bool made : {false, true}) {
        if (made) fs::create_directory(box);
        for (const char* const words : {"encrypt", "decrypt", "check decrypt"}) {
            EXPECT_EQ(run(words).status, 2) << words << ": not the pair that the move began with";
        }
        EXPECT_TRUE(made ? fs::is_empty(box) : !fs::exists(box));
    }
    fs::remove(box);
    fs::rename(folder / "away", box);

    const std::string slow = "-f -e inject=sendfile:delay_enter=1100000:when=1";
    const Ended rest = Vaultctl(traced(slow, command("encrypt --json"))).finish();
    EXPECT_EQ(rest.status, 0) << rest.output;
    const nlohmann::json start = rest.events("start").at(0);
    EXPECT_EQ(start.at("resumed"), true);
    EXPECT_EQ(start.at("bytes_done"), 10 * 100000);
    uint64_t last = start.at("bytes_done");
    for (const nlohmann::json& event : rest.events("progress")) {
        EXPECT_GE(event.at("bytes"), last);
        last = event.at("bytes");
    }
    EXPECT_EQ(last, start.at("bytes"));
    const nlohmann::json slowed = rest.events("progress").at(1);
    const double left = slowed.at("total").get<double>() - slowed.at("bytes").get<double>();
    const double seconds = slowed.at("seconds_left");
    EXPECT_NEAR(slowed.at("bytes_per_second").get<double>() * seconds, left, left / 5) << slowed;
    EXPECT_EQ(rest.events("progress").back().at("files"), 15);
    EXPECT_TRUE(filesIn(enc) == files);
}

/// The sentences and the exit status after each kind of kill, and the way on.
class Killed : public HostTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(Killed, IsCarriedOnWithoutALoss) {
    write(box / "a/one", "one");
    write(box / "two", "two");
    Vaultctl first = startSlowly("d/large");
    const std::string onTarget = "'" VAULTCTL_COMMAND "' encrypt --allow-plain " + enc.string();
    for (const std::string& words : {command("encrypt"), command("check encrypt"), onTarget}) {
        const Ended second = Vaultctl(words).finish();
        EXPECT_EQ(second.status, 2);
        EXPECT_TRUE(second.says("Another vaultctl is at work")) << second.output;
    }
    // To look takes no lock, which another run could meet.
    EXPECT_EQ(Vaultctl(traced("-e inject=flock:signal=KILL", command("status"))).finish().status,
              0);
    if (GetParam() == "host") {
        ASSERT_EQ(kill(first.pid, SIGKILL), 0);
        // Not finish(): strace stays on the terminal for as long as the worker lives.
        ASSERT_EQ(waitpid(first.pid, nullptr, 0), first.pid);
        const Ended held = run("encrypt");
        EXPECT_EQ(held.status, 2) << "the worker still holds the lock";
        EXPECT_TRUE(held.says("(process " + std::to_string(first.worker) + ")")) << held.output;
        EXPECT_EQ(Vaultctl(onTarget).finish().status, 2) << "it holds both roots";
    } else {
        ASSERT_EQ(kill(first.worker, SIGKILL), 0);
        const Ended ended = first.finish();
        EXPECT_EQ(ended.status, 1);
        EXPECT_TRUE(ended.says("ended by signal 9")) << ended.output;
    }
    const Ended rest = carryOn();
    EXPECT_EQ(rest.status, 0) << rest.output;
    EXPECT_TRUE(filesIn(enc) == files);
}

INSTANTIATE_TEST_SUITE_P(Who, Killed, ::testing::Values("host", "worker"),
                         [](const auto& test) { return test.param; });

/// An undo of a job whose worker was ended after two files; the first takes seconds to go back.
TEST_F(HostTest, AnUndoIsPausedAndCarriedOnByItsOwnCommandAlone) {
    const fs::path worker = folder / "worker";
    const auto script = [&](const std::string& line) {
        write(worker, "#!/bin/sh\n" + line + "\n");
        fs::permissions(worker, fs::perms::owner_all);
        return " --worker " + worker.string();
    };
    for (const char* const name : {"a", "b", "c"}) write(box / name, name);
    write(box / "d/large", std::string(4 << 20, 'x'));
    write(enc / "other", "was there before");
    fs::create_directory(enc / "place");
    const Snapshot before = snapshot(box);
    EXPECT_EQ(run("undo").status, 2) << "no job";
    EXPECT_EQ(run("encrypt" + script("'" WORKER_COMMAND "' \"$@\"; kill -KILL $PPID")).status,
              -SIGKILL);
    EXPECT_TRUE(run("undo").says("had not moved anything"));
    EXPECT_EQ(snapshot(box), before);
    EXPECT_TRUE(run("status").says("No job"));

    const std::string ended = script(
        "exec " + traced("-e inject=renameat:signal=KILL:when=5", "'" WORKER_COMMAND "' \"$@\""));
    EXPECT_EQ(run("encrypt --replace" + ended).status, 1);
    Vaultctl undo = meet("undo --json", box / "d/large");
    ASSERT_EQ(kill(undo.pid, SIGINT), 0);
    const Ended paused = undo.finish();
    EXPECT_EQ(paused.status, 3) << paused.output;
    EXPECT_EQ(paused.events("warning").at(0).at("code"), "replaced");
    EXPECT_EQ(paused.events("start").at(0).at("files"), 2);
    const std::string own = "`vaultctl undo " + box.string() + "`";
    EXPECT_TRUE(paused.says(own + " carries on")) << paused.output;
    for (const char* const words : {"encrypt", "decrypt", "check encrypt", "forget"}) {
        const Ended refused = run(words);
        EXPECT_EQ(refused.status, 2) << words;
        EXPECT_TRUE(refused.says(own)) << refused.output;
    }
    const nlohmann::json status = run("status --json").events("status").at(0);
    EXPECT_EQ(status.at("undoes"), "encrypt");
    EXPECT_EQ(status.at("files_left"), 2);
    fs::rename(enc, folder / "away");
    fs::create_directory(enc);
    EXPECT_EQ(run("undo").status, 2) << "not the directory that the move began with";
    fs::remove(enc);
    fs::rename(folder / "away", enc);
    const Ended rest = run("undo");
    EXPECT_EQ(rest.status, 0) << rest.output;
    EXPECT_EQ(snapshot(box), before);
    EXPECT_TRUE(filesIn(enc) == (Files{{"other", "was there before"}}));
    EXPECT_FALSE(fs::exists(box / "place")) << "it was never in the source";
    EXPECT_EQ(run("undo").status, 2) << "no job any more";

    EXPECT_EQ(Vaultctl(traced("-e inject=fchmod:error=EPERM:when=3+", command("encrypt")))
                  .finish()
                  .status,
              1);
    const Ended late = run("undo");
    EXPECT_EQ(late.status, 2) << "all files have been moved";
    EXPECT_TRUE(late.says("`vaultctl decrypt --allow-plain " + box.string())) << late.output;
}

/// What would take a file's place on its way back, or was not left as it was moved.
TEST_F(HostTest, AnUndoThatCouldLoseAFileIsRefusedBeforeItBegins) {
    const fs::path worker = folder / "worker";
    write(worker, "#!/bin/sh\nexec " + traced("-e inject=renameat:signal=KILL:when=5",
                                              "'" WORKER_COMMAND "' \"$@\"\n"));
    fs::permissions(worker, fs::perms::owner_all);
    for (const char* const name : {"d/a", "d/e/b", "c"}) write(box / name, name);
    EXPECT_EQ(run("encrypt --worker " + worker.string()).status, 1);
    const std::pair<std::string, std::string> cases[] = {
        {"dotted-on-target", "box/d/.a"}, {"on-target", "box/d/a"}, {"gone", "box_enc/d/a"}};
    for (const auto& [code, path] : cases) {
        const fs::path file = folder / path;
        const std::string was = fs::exists(file) ? read(file) : "";
        write(file, "somebody's");
        const Ended ended = run("undo --json");
        EXPECT_EQ(ended.status, 2) << ended.output;
        EXPECT_EQ(ended.events("refusal").at(0).at("code"), code) << ended.output;
        EXPECT_EQ(run("status --json").events("status").at(0).at("job"), "encrypt");
        was.empty() ? (void)fs::remove(file) : write(file, was);
    }
    EXPECT_EQ(run("undo").status, 0);
    EXPECT_EQ(filesIn(enc), Files());
    EXPECT_EQ(filesIn(box).size(), 3U);
}

/// The mount of the encrypted directory may have gone, with the lists in it.
TEST_F(HostTest, APreparationThatWasCutIsThrownAwayOnlyBesideItsOwnDirectory) {
    const fs::path worker = folder / "worker";
    write(enc / "a/file", "file");
    write(worker, "#!/bin/sh\n" WORKER_COMMAND " \"$@\"\nkill -KILL $PPID\n");
    fs::permissions(worker, fs::perms::owner_all);
    EXPECT_EQ(run("decrypt --worker " + worker.string()).status, -SIGKILL);
    fs::rename(enc, folder / "away");
    fs::create_directory(enc);
    for (const char* const words : {"check decrypt", "decrypt", "encrypt"}) {
        EXPECT_EQ(run(words).status, 2) << words;
    }
    fs::remove(enc);
    fs::rename(folder / "away", enc);
    EXPECT_EQ(run("check decrypt").status, 0);
    EXPECT_EQ(run("decrypt").status, 0);
    EXPECT_EQ(read(box / "a/file"), "file");
    EXPECT_FALSE(fs::exists(enc / "a/.ecryptfs_process"));
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
