#include <sys/mount.h>
#include <sys/stat.h>

#include "worker_fixture.h"

namespace fs = std::filesystem;

namespace {

class Actions : public WorkerTest {};

TEST_F(Actions, ATreeGoesInAndComesBack) {
    for (const size_t size : {0, 1, 4095, 4096, 4097, 262143, 262144, 262145, 600000}) {
        write(box / "sizes" / std::to_string(size), std::string(size, 'x'));
    }
    write(box / "a/b/deep", "deep");
    write(box / "top", "top");
    write(box / std::string(232, 'n'), "the longest name");
    fs::create_directory(box / "a/empty");
    const Files before = filesIn(box);
    uint64_t total = 0;
    for (const auto& [name, contents] : before) {
        total += contents.size() + fs::path(name).filename().string().size();
    }
    const std::string totalText = std::to_string(total);

    makeTargetDirectories();
    EXPECT_EQ(run(0).status, std::vector<std::string>{"total_size " + totalText});
    const mode_t old = umask(0027);
    const RunResult encrypted = run(1);
    umask(old);
    ASSERT_EQ(encrypted.exitStatus, 0);
    EXPECT_EQ(fs::status(enc / "top").permissions(), fs::perms{0640});
    EXPECT_EQ(encrypted.status.back(), "record_progress " + totalText + " 1000");
    EXPECT_EQ(filesIn(enc), before);
    EXPECT_TRUE(filesIn(box).empty());

    EXPECT_EQ(run(0, enc).status, std::vector<std::string>{"total_size " + totalText});
    const RunResult decrypted = run(2);
    ASSERT_EQ(decrypted.exitStatus, 0);
    EXPECT_EQ(decrypted.status.back(), "record_progress " + totalText + " 1000");
    EXPECT_EQ(filesIn(box), before);
    EXPECT_TRUE(filesIn(enc).empty());
}

// The host closes neither pipe, says "pause" in the middle of a file, and starts again.
TEST_F(Actions, APauseStopsInsideAFileAndTheNextRunGoesOn) {
    write(box / "big", "");
    fs::resize_file(box / "big", 4ULL << 30);  // a hole: takes far longer to copy than to pause
    ASSERT_EQ(run(0).exitStatus, 0);
    WorkerProcess worker(command(1));
    worker.readLine();
    worker.send("pause\n");
    const RunResult paused = worker.finish();
    ASSERT_EQ(paused.exitStatus, 0);
    EXPECT_EQ(paused.status.front(), "progress 262144 1000");
    EXPECT_EQ(paused.status.back(), "paused");
    EXPECT_EQ(paused.log.back(), "I !!! encrypt paused !!!");
    EXPECT_TRUE(filesIn(enc).empty());
    EXPECT_EQ(read(box / ".ecryptfs_process"), processFile({"big"}));

    write(box / "big", "small by now");
    EXPECT_EQ(run(1).exitStatus, 0);
    EXPECT_EQ(filesIn(enc), (Files{{"big", "small by now"}}));
}

TEST_F(Actions, AHostThatHasGoneDoesNotStopTheMove) {
    for (int i = 0; i < 50; ++i) write(box / std::to_string(i), std::string(300000, 'x'));
    const Files before = filesIn(box);
    ASSERT_EQ(run(0).exitStatus, 0);
    WorkerProcess worker(command(1));
    worker.closeStatus();
    EXPECT_EQ(worker.finish().exitStatus, 0);
    EXPECT_EQ(filesIn(enc), before);
}

TEST_F(Actions, TheFirstFailureEndsTheRun) {
    write(box / "a/b/fails", "x");
    write(box / "a/stays", "x");
    write(box / "stays", "x");
    makeTargetDirectories();
    ASSERT_EQ(run(0).exitStatus, 0);
    fs::remove(enc / "a/b");
    const RunResult result = run(1);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.status, std::vector<std::string>{"error crypto -2"});
    EXPECT_TRUE(filesIn(enc).empty());
}

TEST_F(Actions, BothWalksListThePlainTree) {
    write(enc / "only here/f", "f");
    ASSERT_EQ(run(0, enc).exitStatus, 0);
    EXPECT_EQ(run(2).exitStatus, 0);
    EXPECT_EQ(read(enc / "only here/f"), "f");
    fs::create_directory(box / "only here");
    EXPECT_EQ(run(2).exitStatus, 0);
    EXPECT_EQ(read(box / "only here/f"), "f");
}

/// box_enc is a file system of 6 MiB.
class SmallTarget : public Actions {
  protected:
    void SetUp() override {
        if (mount("none", enc.c_str(), "tmpfs", 0, "size=6m") != 0) {
            GTEST_SKIP() << "needs the right to mount a tmpfs";
        }
    }
    ~SmallTarget() override { (void)umount(enc.c_str()); }
};

TEST_F(SmallTarget, TellsWhatAFileNeedsAndWhatIsFree) {
    write(box / "big", std::string(6291457, 'x'));
    ASSERT_EQ(run(0).exitStatus, 0);
    const RunResult result = run(1);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.status, std::vector<std::string>{"error nospace 6291457 6291456"});
    EXPECT_EQ(filesIn(enc), (Files{{".ecryptfs_intermediate_big", ""}}));
    EXPECT_EQ(read(box / ".ecryptfs_process"), processFile({"big"}));
    fs::resize_file(box / "big", 6291456);
    EXPECT_EQ(run(1).exitStatus, 0) << "exactly what is free is enough";
}

TEST_F(SmallTarget, HasRoomForAScanDownToTheReserve) {
    write(enc / "filler", std::string(1048576 - 1, 'x'));
    EXPECT_EQ(run(0, enc).status, std::vector<std::string>{"error nospace 6291461 5242880"});
    fs::remove(enc / ".ecryptfs_process");
    write(enc / "filler", std::string(1048577, 'x'));
    EXPECT_EQ(run(0, enc).status, std::vector<std::string>{"error nospace 5242880 5238784"});
    EXPECT_FALSE(fs::exists(enc / ".ecryptfs_process")) << "refused before the walk";
}

}  // namespace
