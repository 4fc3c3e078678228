#include "records/process_file.h"

#include <sys/stat.h>

#include "engine/crypt_worker.h"
#include "worker_fixture.h"

namespace fs = std::filesystem;

namespace {

using ::testing::Contains;
using ::testing::MatchesRegex;

class ProcessFile : public WorkerTest {
  protected:
    [[nodiscard]] fs::path path() const { return box / process_file::kName; }
};

TEST_F(ProcessFile, DecidesWhereAWorkerStartsAndWhetherItStays) {
    struct Case {
        const char* name;
        std::string contents;
        bool ready;
        bool kept;
        const char* record;
    };
    const std::string three = processFile({"a", "b", "c"});
    const Case cases[] = {
        {"empty", "", true, false, nullptr},
        {"no entries", processFile({}), true, false, "I CryptWorker number: 0"},
        {"new", three, true, true, "I CryptWorker number: 0"},
        {"last line unended", three.substr(0, three.size() - 1), true, true, nullptr},
        {"all but one done", processFile({"a", "b", "c"}, 2), true, true,
         "I CryptWorker number: 2"},
        {"all done", processFile({"a", "b", "c"}, 3), true, false, nullptr},
        {"far beyond", processFile({"a"}, 4294967295), true, false,
         "I CryptWorker number: 4294967295"},
        {"short header", three.substr(1), false, true, "E CryptWorker header size invalid : 63"},
        {"long header", "x" + three, false, true, "E CryptWorker header size invalid : 65"},
        {"line feed in the count", processFile({"a"}, 10), false, true,
         "E CryptWorker header size invalid : 8"},
        {"line feed higher up", processFile({"a"}, 0x0a0b), false, true,
         "E CryptWorker header size invalid : 9"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        write(path(), c.contents);
        LogCapture log;
        {
            CryptWorker worker(box, "", true);
            EXPECT_EQ(worker.init(), c.ready);
            int error = 0;  // a pause at once: only a worker that is not ready fails
            EXPECT_EQ(worker.crypto(
                          nullptr, [] { return true; }, error, nullptr),
                      c.ready);
            EXPECT_EQ(error, c.ready ? 0 : -EBADF);
        }
        if (c.record != nullptr) {
            EXPECT_THAT(log.records, Contains(c.record));
        }
        EXPECT_EQ(fs::exists(path()), c.kept);
        EXPECT_TRUE(!c.kept || read(path()) == c.contents);
    }
}

class Scan : public WorkerTest {};

TEST_F(Scan, ListsAndMeasuresRegularFilesOfTheWholeTree) {
    write(box / "ab", std::string(100, 'x'));
    write(box / "a/long_name_here", std::string(90, 'x'));
    write(box / "a/.ecryptfs", "x");
    write(box / "a/.ecryptfs_intermediate_q", "never listed");
    write(box / ".ecryptfs_process", "old");
    write(box / ".ecryptfs_folder/q", "never visited");
    fs::create_symlink("ab", box / "link");
    fs::create_directory_symlink("a", box / "linked");
    ASSERT_EQ(mkfifo((box / "pipe").c_str(), 0600), 0);
    fs::create_directories(box / "b/c");

    const RunResult result = run(0);
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.status, std::vector<std::string>{"total_size 216"});
    EXPECT_THAT(result.log,
                Contains(MatchesRegex("D max file size: 104, need size: 5242984, free size: "
                                      "[0-9]+, total size: 216")));
    EXPECT_EQ(read(box / ".ecryptfs_process"), processFile({"ab"}));
    EXPECT_EQ(read(box / "b/c/.ecryptfs_process"), processFile({}));
    std::string a = read(box / "a/.ecryptfs_process").substr(65);
    EXPECT_TRUE(a == "long_name_here\n.ecryptfs\n" || a == ".ecryptfs\nlong_name_here\n") << a;
    EXPECT_FALSE(fs::exists(box / ".ecryptfs_folder/.ecryptfs_process"));
}

}  // namespace
