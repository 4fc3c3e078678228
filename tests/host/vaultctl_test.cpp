#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <memory>

#include "host_fixture.h"

namespace fs = std::filesystem;

namespace {

TEST_F(HostTest, ATreeGoesInAndComesBackAsItWas) {
    write(box / "a/b/plain", "one");
    write(box / "a/has blank \xff\x01", "two");
    write(box / "empty/.keep", "");
    write(box / "script", "#!/bin/sh\n");
    fs::create_symlink("script", box / "link");
    fs::create_hard_link(box / "script", box / "twin");
    ASSERT_EQ(chmod((box / "script").c_str(), 04751), 0);
    ASSERT_EQ(chmod((box / "a").c_str(), 02750), 0);
    if (geteuid() == 0) {
        ASSERT_EQ(chown((box / "a/b/plain").c_str(), 1234, 4321), 0);
    }
    for (const char* path : {"a/b/plain", "empty", "a", ""}) {
        const timespec times[2] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT},
                                   {.tv_sec = 981173106, .tv_nsec = 789012345}};
        ASSERT_EQ(utimensat(AT_FDCWD, (box / path).c_str(), times, 0), 0);
    }
    Snapshot before = snapshot(box);

    const Ended in = run("encrypt", {"--json"});
    EXPECT_EQ(in.status, 0) << in.output;
    EXPECT_EQ(in.event("start").at("files"), 5);
    EXPECT_EQ(in.event("warning").at("path"), (box / "link").string());
    EXPECT_EQ(in.events().back().at("result"), "done");
    before.erase("/link");
    Snapshot inside = snapshot(enc);
    inside[""] = before[""];  // The mode of a mount's own root is not ours to set.
    EXPECT_EQ(inside, before);
    EXPECT_FALSE(fs::exists(box / "script"));

    fs::remove_all(box);
    EXPECT_EQ(run("decrypt").status, 0);
    EXPECT_EQ(snapshot(box).size(), before.size());
    Snapshot back = snapshot(box);
    EXPECT_EQ(back, before);
    EXPECT_TRUE(run("status").says("No job"));
}

/// Every entry: what makes the tree refusable, and the code that says so.
TEST_F(HostTest, WhatCannotMoveIsRefusedBeforeAnythingMoves) {
    struct Case {
        std::string code;
        std::function<void()> make;
    };
    const std::vector<Case> cases = {
        {"dotted-directory",
         [&] {
             write(box / "N", "n");
             fs::create_directory(box / ".N");
         }},
        {"dotted-on-target",
         [&] {
             write(box / "N", "n");
             write(enc / ".N", "other");
         }},
        {"newline", [&] { write(box / "line\nfeed", "n"); }},
        {"name-too-long", [&] { write(box / std::string(233, 'n'), "n"); }},
        {"reserved-name", [&] { write(box / "ecryptfs_process", "n"); }},
        {"reserved-name", [&] { write(box / "a/ecryptfs_intermediate_x", "n"); }},
        {"on-target",
         [&] {
             write(box / "N", "new");
             write(enc / "N", "old");
         }},
        {"other-kind-on-target",
         [&] {
             write(box / "N/f", "n");
             write(enc / "N", "n");
         }},
        {"unfinished-move", [&] { write(box / "a/.ecryptfs_process", "n"); }},
        {"unfinished-move",
         [&] {
             fs::create_directory(box / "a");
             write(enc / "a/.ecryptfs_process", "");
         }},
        {"no-space",
         [&] {
             write(box / "N", "n");
             fs::resize_file(box / "N", 1LL << 42);
         }},
        {"target-missing", [&] { fs::remove(enc); }},
    };
    for (const Case& refusal : cases) {
        SCOPED_TRACE(refusal.code);
        fs::remove_all(box);
        fs::remove_all(enc);
        fs::create_directory(box);
        fs::create_directory(enc);
        refusal.make();
        const auto names = [&] {
            std::vector<fs::path> found;
            for (const auto& entry : fs::recursive_directory_iterator(folder))
                found.push_back(entry);
            return found;
        };
        const auto before = names();
        for (const char* const words : {"check encrypt", "encrypt"}) {
            const Ended ended = run(words, {"--json"});
            EXPECT_EQ(ended.status, 2) << ended.output;
            EXPECT_EQ(ended.event("refusal").value("code", ""), refusal.code) << ended.output;
        }
        EXPECT_EQ(names(), before);
    }
    fs::create_directory(enc);
    std::vector<std::string> withoutFlag = command("encrypt");
    withoutFlag.pop_back();
    const Ended plain = Vaultctl(withoutFlag).finish();
    EXPECT_EQ(plain.status, 2);
    EXPECT_TRUE(plain.says("not on an eCryptfs mount")) << plain.output;
}

TEST_F(HostTest, ReplaceOverwritesAFileOfTheSameName) {
    write(box / "N", "new");
    write(enc / "N", "old");
    EXPECT_EQ(run("encrypt", {"--replace"}).status, 0);
    EXPECT_EQ(read(enc / "N"), "new");
}

TEST_F(HostTest, AUserWhoCannotReadOrRemoveIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make files of somebody else";
    write(box / "closed/file", "x");
    write(box / "foreign", "x");
    fs::permissions(folder, fs::perms::all);
    fs::permissions(box / "closed", fs::perms::none);
    fs::permissions(VAULTCTL_COMMAND, fs::perms::all);
    std::string words = "exec setpriv --reuid 1234 --regid 1234 --clear-groups";
    for (const std::string& word : command("check encrypt", {"--json"})) words += " '" + word + "'";
    const Ended ended = Vaultctl({"/bin/sh", "-c", words}).finish();
    EXPECT_EQ(ended.status, 2) << ended.output;
    EXPECT_TRUE(ended.says((box / "closed").string())) << ended.output;
    EXPECT_TRUE(ended.says("only root")) << ended.output;
}

TEST_F(HostTest, AFullTargetStopsTheMoveAndRoomLetsItGoOn) {
    const auto mountTarget = [&](const char* options, unsigned long flags) {
        return mount("tmpfs", enc.c_str(), "tmpfs", flags, options);
    };
    if (mountTarget("size=16m", 0) != 0) GTEST_SKIP() << "needs a file system of its own";
    for (int i = 0; i < 8; ++i) write(box / std::to_string(i), std::string(4 << 20, 'x'));
    const Ended full = run("encrypt");
    EXPECT_EQ(full.status, 1) << full.output;
    EXPECT_TRUE(full.says("No file is lost; free ")) << full.output;
    EXPECT_TRUE(full.says(" MiB there and run `vaultctl encrypt ")) << full.output;
    EXPECT_EQ(mountTarget("size=64m", MS_REMOUNT), 0);
    const Ended rest = run("encrypt", {"--json"});
    EXPECT_EQ(rest.status, 0) << rest.output;
    EXPECT_GT(rest.event("start").at("bytes_done"), 8 << 20);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(fs::file_size(enc / std::to_string(i)), 4 << 20);
    EXPECT_EQ(umount(enc.c_str()), 0);
}

TEST_F(HostTest, AFileThatCameDuringTheMoveIsNamedAndMovedNextTime) {
    write(box / "old", "old");
    std::unique_ptr<Vaultctl> host;
    ASSERT_GT(startAndMeet("d/large", host), 0);
    write(box / "late", "late");
    const Ended ended = host->finish();
    EXPECT_EQ(ended.status, 1) << ended.output;
    EXPECT_TRUE(ended.says((box / "late").string())) << ended.output;
    EXPECT_EQ(read(enc / "old"), "old");
    EXPECT_EQ(run("encrypt").status, 0);
    EXPECT_EQ(read(enc / "late"), "late");
}

}  // namespace
