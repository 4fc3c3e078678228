#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "actions/avail_space.h"
#include "worker_fixture.h"

namespace fs = std::filesystem;

namespace {

using ::testing::Contains;

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
    write(box / "a/first", "x");
    write(box / "a/big", "");
    fs::resize_file(box / "a/big", 4ULL << 30);  // a hole: takes far longer to copy than to pause
    makeTargetDirectories();
    ASSERT_EQ(run(0).exitStatus, 0);
    const auto listWith = [](uint32_t done) {
        return "unused.." + processFile({"first", "big"}, done).substr(8);
    };
    write(box / "a/.ecryptfs_process", listWith(0));
    const android::base::unique_fd list(open((box / "a/.ecryptfs_process").c_str(), O_RDONLY));
    WorkerProcess worker(command(1));
    EXPECT_EQ(worker.readLine(), "progress 6 1000");
    EXPECT_NE(worker.readLine(), "");
    worker.send("pause\n");
    const RunResult paused = worker.finish();
    ASSERT_EQ(paused.exitStatus, 0);
    EXPECT_THAT(paused.status, Contains("paused"));
    EXPECT_EQ(paused.status.back(), "record_progress 6 1000");
    EXPECT_EQ(paused.log.back(), "I !!! encrypt paused !!!");
    EXPECT_EQ(filesIn(enc), (Files{{"a/first", "x"}}));
    EXPECT_EQ(read("/proc/self/fd/" + std::to_string(list.get())), listWith(1)) << "in place";
    EXPECT_FALSE(fs::exists(box / ".ecryptfs_process")) << "the rest is still looked at";

    write(box / "a/big", "small by now");
    EXPECT_EQ(run(1).exitStatus, 0);
    EXPECT_EQ(filesIn(enc), (Files{{"a/first", "x"}, {"a/big", "small by now"}}));
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

TEST_F(Actions, AFailedRunTellsWhatItHasDoneAndGoesNoFurther) {
    for (const char* name : {"a/b/done", "a/fails", "stays"}) write(box / name, "x");
    makeTargetDirectories();
    fs::create_directory(enc / "a/fails");
    ASSERT_EQ(run(0).exitStatus, 0);
    const RunResult result = run(1);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.status, Contains("error crypto -21"));
    EXPECT_EQ(result.status.back(), "record_progress 11 1000");
    EXPECT_TRUE(fs::exists(box / "stays"));
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

// A link in the place of what it was made from.
TEST_F(Actions, WhatBecameALinkIsRefusedByItsName) {
    struct Case {
        fs::path place;
        int action;
        std::vector<std::string> status;
        const char* record;  ///< begins with this
        bool isHard = false;
    };
    const Case cases[] = {
        {box / "a/f", 1, {"error crypto -40"}, "E Fail to copyFile "},
        {enc / "a", 2, {}, "E Failed to opendir "},
        {enc / "a", 1, {"error crypto -20"}, "E Fail to create file "},
        {box / "a/.ecryptfs_process", 1, {}, "E Fail to open file"},
        {box / "a/.ecryptfs_process", 1, {}, "E Fail to open file", true},
    };
    for (const Case& c : cases) {
        emptyTrees();
        const fs::path source = c.action == 1 ? box : enc;
        write(source / "a/f", "mine");
        for (const fs::path& root : {box, enc}) fs::create_directories(root / "a");
        ASSERT_EQ(run(0, source).exitStatus, 0);
        fs::remove_all(folder / "aside");
        fs::rename(c.place, folder / "aside");
        if (c.isHard) {
            fs::create_hard_link(folder / "aside", c.place);
        } else {
            fs::create_symlink(folder / "aside", c.place);
        }
        const RunResult result = run(c.action);
        EXPECT_EQ(result.status, c.status) << c.place;
        EXPECT_THAT(result.log, Contains(::testing::StartsWith(c.record))) << c.place;
    }
}

TEST_F(Actions, WhatIsKeptForRootIsNotFree) {
    struct statvfs now = {};
    ASSERT_EQ(statvfs(box.c_str(), &now), 0);
    // Others write to the disk meanwhile; a part kept for root is far larger.
    EXPECT_NEAR(static_cast<double>(utils::GetAvailSpace(box)),
                static_cast<double>(now.f_bavail) * static_cast<double>(now.f_bsize), 1e9);
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
    write(enc / "filler", std::string(524288 - 6, 'x'));
    EXPECT_EQ(run(0, enc).status, std::vector<std::string>{"total_size 524288"}) << "just enough";
}

// As after a failing write, when it shows what is not on the disk.
TEST_F(SmallTarget, WhichTakesNoChangesIsNotBuiltUpon) {
    write(box / "stashed", "x");
    write(enc / ".stashed", "x");
    ASSERT_EQ(run(0).exitStatus, 0);
    ASSERT_EQ(mount("none", enc.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    const auto expectNoMove = [&] {
        const RunResult result = run(1);
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_THAT(result.status, Contains("error crypto -30"));
    };
    expectNoMove();
    EXPECT_EQ(read(box / "stashed"), "x");
    write(box / ".ecryptfs_process", processFile({"moved"}));
    expectNoMove();
    EXPECT_EQ(read(box / ".ecryptfs_process"), processFile({"moved"}));
}

}  // namespace
