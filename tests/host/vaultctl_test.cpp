#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <set>

#include "host_fixture.h"

namespace fs = std::filesystem;

namespace {

TEST_F(HostTest, ATreeGoesInAndComesBackAsItWas) {
    write(box / "a/b/plain", "one");
    write(box / "a/has blank \xff\x01", "two");
    write(box / "empty/.keep", "");
    fs::resize_file(box / "empty/.keep", 1 << 20);
    write(box / "script", "#!/bin/sh\n");
    for (const char* const name : {".script", "a/b/link"}) fs::create_symlink("/x\n y", box / name);
    EXPECT_EQ(setxattr((box / "script").c_str(), "user.a:b c", "", 0, 0), 0);
    fs::create_hard_link(box / "script", box / "twin");
    ASSERT_EQ(chmod((box / "script").c_str(), 04751), 0);
    ASSERT_EQ(chmod((box / "a").c_str(), 02750), 0);
    if (geteuid() == 0) {
        ASSERT_EQ(chown((box / "a/b/plain").c_str(), 1234, 4321), 0);
    }
    const timespec times[] = {{.tv_sec = 300000000, .tv_nsec = 0},
                              {.tv_sec = 981173106, .tv_nsec = 789012345}};
    for (const char* path : {"a/b/plain", "a/b/link", "empty", "a", ""}) {
        ASSERT_EQ(utimensat(AT_FDCWD, (box / path).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }
    const fs::file_time_type rootTime = fs::last_write_time(box);
    Snapshot before = snapshot(box);

    const Ended in = run("encrypt --json");
    EXPECT_EQ(in.status, 0) << in.output;
    EXPECT_EQ(in.events("start").at(0).at("files"), 5);
    EXPECT_EQ(in.events("warning").at(0).at("code"), "hard-link");
    EXPECT_EQ(in.events("warning").at(2).at("code"), "holes");
    EXPECT_EQ(in.events("end").at(0).at("result"), "done");
    EXPECT_EQ(snapshot(enc), before);
    EXPECT_FALSE(fs::exists(fs::symlink_status(box / ".script")) || !filesIn(box).empty());

    fs::remove_all(box);
    EXPECT_EQ(run("decrypt").status, 0);
    EXPECT_EQ(snapshot(box), before);
    EXPECT_EQ(fs::last_write_time(box), rootTime);
    EXPECT_TRUE(run("status").says("No job"));
}

TEST_F(HostTest, WhatCannotMoveIsRefusedBeforeAnythingMoves) {
    const auto expectRefusal = [&](const std::string& code) {
        const auto names = [&] {
            return std::set<fs::path>(fs::recursive_directory_iterator(folder), {});
        };
        const std::set<fs::path> before = names();
        for (const char* const words : {"check encrypt --json", "encrypt --json"}) {
            const Ended ended = run(words);
            EXPECT_EQ(ended.status, 2) << ended.output;
            EXPECT_TRUE(ended.events("refusal").at(0).at("code") == code) << ended.output;
        }
        EXPECT_EQ(names(), before);
    };
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"dotted-directory", {"box/N", "box/.N/f"}},
        {"dotted-on-target", {"box/N", "box_enc/.N"}},
        {"dotted-on-target", {"box/N", "box_enc/.N/f"}},
        {"newline", {"box/line\nfeed"}},
        {"name-too-long", {"box/" + std::string(233, 'n')}},
        {"reserved-name", {"box/ecryptfs_process"}},
        {"reserved-name", {"box/a/ecryptfs_intermediate_x"}},
        {"reserved-name", {"box/ecryptfs_job"}},
        {"reserved-name", {"box/ecryptfs_mark"}},
        {"reserved-name", {"box/ecryptfs_manifest"}},
        {"other-kind-on-target", {"box/N/f", "box_enc/N"}},
        {"other-kind-on-target", {"box/N -> x", "box_enc/N -> y"}},
        {"unfinished-move", {"box/a/.ecryptfs_process"}},
        {"unfinished-move", {"box/a/f", "box_enc/a/.ecryptfs_process"}},
        {"unfinished-inside", {"box/a/.ecryptfs_job"}},
        {"unfinished-inside", {"box/a/f", "box_enc/a/.ecryptfs_mark"}},
        {"no-space", {"box/huge"}},
        {"on-target", {"box/N", "box_enc/N"}},
    };
    for (const auto& [code, paths] : cases) {
        SCOPED_TRACE(code);
        emptyTrees();
        for (const std::string& file : paths) {
            const size_t arrow = file.find(" -> ");
            if (arrow != std::string::npos) {
                fs::create_symlink(file.substr(arrow + 4), folder / file.substr(0, arrow));
                continue;
            }
            write(folder / file, file);
            if (file == "box/huge") fs::resize_file(folder / file, 1LL << 42);
        }
        expectRefusal(code);
    }
    write(box / std::string(232, 'n'), "as long as can be");
    EXPECT_EQ(run("encrypt --replace").status, 0);
    EXPECT_EQ(read(enc / "N"), "box/N");

    fs::remove_all(box);
    write(enc / "line\nfeed", "");
    EXPECT_EQ(run("decrypt").status, 2);
    EXPECT_FALSE(fs::exists(box)) << "a refused way back makes nothing";
    fs::create_directory(box);
    fs::remove_all(enc);
    expectRefusal("target-missing");
    write(folder / ".ecryptfs_job", "");
    fs::create_directory(enc);
    expectRefusal("unfinished-above");
    EXPECT_EQ(Vaultctl("'" VAULTCTL_COMMAND "' status " + box.string() + "x").finish().status, 2);
}

TEST_F(HostTest, TreesThatOverlapAreRefused) {
    write(box / "in/file", "file");
    fs::remove(enc);
    for (const fs::path& place : {box, box / "in"}) {
        fs::create_directory_symlink(place, enc);
        const Snapshot before = snapshot(box);
        EXPECT_EQ(run("check encrypt --replace").status, 2);
        EXPECT_EQ(run("encrypt --replace").status, 2);
        EXPECT_EQ(snapshot(box), before);
        fs::remove(enc);
    }
}

TEST_F(HostTest, AWorkerRunsHoweverVaultctlWasStarted) {
    const fs::path worker = folder / "worker";
    const std::string list = (folder / "descriptors").string();
    write(worker, "#!/bin/sh\nkill -HUP $PPID\nls -l /proc/$$/fd >" + list +
                      "\nexec '" WORKER_COMMAND "' \"$@\"\n");
    fs::permissions(worker, fs::perms::owner_all);
    const std::string line =
        "env --ignore-signal=CHLD,HUP " + command("encrypt --worker " + worker.string());
    // What is done but cannot be said has a status of its own.
    for (const auto& [rest, status] : {std::pair(" 9</dev/null", 0), {" <&- >&- 2>&-", 74}}) {
        write(box / "file", "file");
        const Ended ended = Vaultctl(line + rest).finish();
        EXPECT_EQ(ended.status, status) << ended.output;
        const auto count = [&](const std::string& word) {
            size_t found = 0;
            for (size_t at = 0; (at = read(list).find(word, at)) != std::string::npos; ++at)
                ++found;
            return found;
        };
        EXPECT_EQ(count(" 9 -> /dev/null"), 0U) << "inherited: " << read(list);
        EXPECT_EQ(count("/box"), 2U) << "locks: " << read(list);
        // One that holds an end of vaultctl's waits for ever when that has died.
        EXPECT_EQ(count("pipe:"), 4U) << "commands, status and twice the log: " << read(list);
    }
}

/// One command each on a tree of two files of three bytes: exit status, and part of what it says.
TEST_F(HostTest, OneCommandSaysWhatHappenedAndWhatToDo) {
    const std::string inBox = box.string() + "/";
    const std::string real = "'" WORKER_COMMAND "' \"$@\"\n";
    const std::string failing = "[ $2 = 0 ] && exec " + real;
    const std::string stopping = failing + "kill -INT $PPID; read word </dev/fd/$4\n";
    const struct {
        std::string words;
        int status;
        std::string text;         ///< nothing: it says nothing at all
        std::string worker = "";  ///< shell script
    } cases[] = {
        {"", 64, "Say what to do: "},
        {"check box", 64, "Say which way to look: "},
        {"encrypt ''", 64, "DIR: must not be empty"},
        {"encrypt --worker= --allow-plain box", 64, "--worker= names no worker"},
        {"encrypt box --worker --json", 64, R"("exit_status":64)"},
        {"encrypt box", 2, "not on an eCryptfs mount, nothing would be encrypted"},
        {"encrypt --replace \"a'\\$b\"", 2, "`vaultctl encrypt --replace '" + folder.string()},
        {"encrypt --replace \"a'\\$b\"", 2, R"(/a'\''$b'` again)"},
        {R"x(encrypt "$(printf 'a\n\302\233\\\377')")x", 2,
         R"(/a\x0a\xc2\x9b\\xff_enc is missing)"},
        {R"x(encrypt "$(printf 'a\n\302\233\\\377')")x", 2, R"x(/a\012\302\233\\\377'` again)x"},
        {"check encrypt --json \"$(printf 'a\\377')\"", 2, R"(61ff5f656e63","reason)"},
        {"check encrypt --allow-plain box", 0, "2 files (6 bytes, the largest 3 bytes)"},
        {"status box >/dev/full", 74, "could not be written: No space left"},
        {"encrypt --allow-plain box >/dev/full", 74, "could not be written: No space left"},
        {"encrypt --allow-plain -q box", 0, ""},
        {"encrypt -q box", 2, "nothing would be encrypted"},
        {"encrypt --allow-plain box", 0, "#]  6 bytes of 6 bytes  2 of 2 files"},
        {"encrypt --allow-plain --worker ./worker box", 1, "was ended by signal 9", "kill -9 $$"},
        {"encrypt --allow-plain --worker ./worker box", 1,
         "could not move " + inBox + "d/e/n: Permission denied",
         failing + "echo error crypto -13 >/dev/fd/$5; exit 1"},
        {"encrypt --allow-plain --worker ./worker box", 2,
         "1.0 MiB of 3.0 MiB needed). Nothing was moved; free 2 MiB",
         "echo error nospace 3145728 1048576 >/dev/fd/$5; exit 1"},
        {"encrypt --allow-plain --json --worker ./worker box", 3, R"("result":"paused")", stopping},
        {"encrypt --allow-plain --worker ./worker box", 3, "Ending the worker at once.",
         stopping + stopping + real},
        {"encrypt --allow-plain --worker ./worker box", 0, "Done: 2 files",
         failing + real + "kill -INT $PPID"},
        {"encrypt --allow-plain --json --worker ./worker box", 1, R"("paths_hex":[")",
         failing + real + "echo late >\"$3/$(printf '\\377')\""},
        {"encrypt --allow-plain --replace --worker ./worker box", 1,
         (folder / "worker ").string() + box.string() + "` again", failing + "kill -9 $$"},
    };
    for (const auto& [words, status, text, worker] : cases) {
        SCOPED_TRACE(words);
        emptyTrees();
        write(box / "d/e/n", "abc");
        write(box / "o", "def");
        for (const char* const name : {"a'$b", "a\n\xc2\x9b\\\xff"})
            fs::create_directory(folder / name);
        write(folder / "worker", "#!/bin/sh\n" + worker + "\n");
        fs::permissions(folder / "worker", fs::perms::owner_all);
        const Ended ended =
            Vaultctl("env -C " + folder.string() + " '" VAULTCTL_COMMAND "' " + words).finish();
        EXPECT_EQ(ended.status, status) << ended.output;
        EXPECT_TRUE(text.empty() ? ended.output.empty() : ended.says(text)) << ended.output;
        if (words.find("--json") != std::string::npos) {
            EXPECT_EQ(ended.events("end").size(), 1U);
        }
    }
    EXPECT_TRUE(
        run("status").says("is at work on it: `vaultctl encrypt --allow-plain --replace /"));
    write(enc / "o", "in the way");
    EXPECT_EQ(run("encrypt").status, 0) << "begun with --replace";
    EXPECT_EQ(read(enc / "o"), "def");
}

TEST_F(HostTest, AUserWhoCannotReadOrRemoveIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make files of somebody else";
    write(box / "closed/file", "x");
    write(box / "foreign", "x");
    fs::permissions(folder, fs::perms::all);
    fs::permissions(box / "closed", fs::perms::none);
    fs::permissions(VAULTCTL_COMMAND, fs::perms::all);
    const Ended ended = Vaultctl("setpriv --reuid 1234 --regid 1234 --clear-groups " +
                                 command("check encrypt --json"))
                            .finish();
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
    files = filesIn(box);
    const Ended full = run("encrypt");
    EXPECT_EQ(full.status, 1) << full.output;
    EXPECT_TRUE(full.says("No file is lost; free ")) << full.output;
    EXPECT_TRUE(full.says(" MiB there and run `vaultctl encrypt ")) << full.output;
    EXPECT_EQ(mountTarget("size=64m", MS_REMOUNT), 0);
    const Ended rest = run("encrypt --json");
    EXPECT_EQ(rest.status, 0) << rest.output;
    EXPECT_GT(rest.events("start").at(0).at("bytes_done"), 8 << 20);
    EXPECT_TRUE(filesIn(enc) == files);
    EXPECT_EQ(umount(enc.c_str()), 0);
}

/// Never in the folder of temporary files itself: that would be the whole machine's free space.
TEST_F(HostTest, FreedBlocksAreForgottenByTheDeviceOrItIsSaidThatTheyAreNot) {
    const std::string image = (folder / "image").string();
    const std::string secret(1 << 20, '~');
    const std::string part(4096, '~');  // The file system may keep it in several places.
    const auto sh = [](const std::string& line) { return Vaultctl(line).finish().status; };
    for (const bool able : {false, true}) {
        SCOPED_TRACE(able);
        const std::string where = box.string();
        write(image, "");
        fs::resize_file(image, 64 << 20);
        const int mounted =
            able ? sh("mkfs.ext4 -q " + image) + sh("mount -o loop " + image + " " + where)
                 : sh("mount -t tmpfs -o size=64m tmpfs " + where);
        if (mounted != 0) GTEST_SKIP() << "needs file systems of its own";
        write(box / "file", secret);
        sync();
        EXPECT_EQ(read(image).find(part) != std::string::npos, able);
        write(folder / "worker", "#!/bin/sh\n[ $2 = 0 ] && exec '" WORKER_COMMAND "' \"$@\"\n");
        fs::permissions(folder / "worker", fs::perms::owner_all);
        EXPECT_EQ(run("encrypt --discard --worker " + (folder / "worker").string()).status, 1);
        EXPECT_TRUE(run("status").says("`vaultctl encrypt --allow-plain --discard /"));
        const Ended ended = run("encrypt --json");
        EXPECT_EQ(ended.status, 0) << ended.output;
        EXPECT_EQ(ended.events("discarded").size(), able ? 1 : 0) << ended.output;
        EXPECT_EQ(ended.says("\"not-discarded\""), !able) << ended.output;
        EXPECT_EQ(read(image).find(part), std::string::npos);
        EXPECT_EQ(sh("umount -l " + where), 0);  // Somebody may be looking at what was mounted.
        EXPECT_EQ(read(enc / "file"), secret);
        fs::remove(enc / "file");
    }
}

TEST_F(HostTest, AFileThatCameDuringTheMoveIsNamedAndMovedNextTime) {
    Vaultctl host = startSlowly("d/large", 1 << 20);
    write(box / "late", "late");
    const Ended ended = host.finish();
    EXPECT_EQ(ended.status, 1) << ended.output;
    EXPECT_TRUE(ended.says((box / "late").string())) << ended.output;
    EXPECT_EQ(run("encrypt").status, 0);
    EXPECT_EQ(read(enc / "late"), "late");
}

}  // namespace
