#include <sys/stat.h>
#include <unistd.h>

#include "engine/crypt_worker.h"
#include "worker_fixture.h"

namespace fs = std::filesystem;

namespace {

using ::testing::Contains;

/// One directory with the process file entries f, g; each file holds its name.
class Transfer : public WorkerTest {
  protected:
    Transfer() {
        write(box / "f", "f");
        write(box / "g", "g");
        write(list(), processFile({"f", "g"}));
    }
    [[nodiscard]] fs::path list() const { return box / ".ecryptfs_process"; }

    /// Runs a worker that sees a pause at its `pausesAfter`-th question.
    bool crypto(int pausesAfter = 1000) {
        error = 0;
        counted = 0;
        CryptWorker worker(box, "", true);
        return worker.init() &&
               worker.crypto([this](unsigned long bytes, bool) { counted += bytes; },
                             [&pausesAfter] { return pausesAfter-- <= 0; }, error, nullptr);
    }
    int error = 0;
    unsigned long counted = 0;
    LogCapture log;
};

// Every state in which a stop can leave an entry, and some that others leave.
TEST_F(Transfer, FinishesWhateverAnEarlierRunLeft) {
    struct Case {
        const char* name;
        Files source, target;
        Files after;
        unsigned long counted;
        std::string record;
    };
    const std::string partial = ".ecryptfs_intermediate_f";
    const std::string stashFound = "I stash file exists:" + (enc / ".f").string();
    const std::string baseGone =
        "E base file is not exists:" + (box / "f").string() + ": No such file or directory";
    const Case cases[] = {
        {"fresh", {{"f", "f"}}, {}, {{"f", "f"}}, 2, ""},
        {"partial copy", {{"f", "f"}}, {{partial, "longer than f"}}, {{"f", "f"}}, 2, ""},
        {"stash and base", {{"f", "f"}}, {{".f", "F"}}, {{"f", "F"}}, 0, stashFound},
        {"stash alone", {}, {{".f", "F"}}, {{"f", "F"}}, 0, ""},
        {"stash and older target", {}, {{".f", "F"}, {"f", "old"}}, {{"f", "F"}}, 0, ""},
        {"target alone", {}, {{"f", "F"}}, {{"f", "F"}}, 0, baseGone},
        {"base and older target", {{"f", "f"}}, {{"f", "old"}}, {{"f", "f"}}, 2, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        emptyTrees();
        for (const auto& [name, contents] : c.source) write(box / name, contents);
        for (const auto& [name, contents] : c.target) write(enc / name, contents);
        write(list(), processFile({"f"}));
        log.records.clear();
        EXPECT_TRUE(crypto());
        EXPECT_EQ(filesIn(enc), c.after);
        EXPECT_TRUE(filesIn(box).empty());
        EXPECT_EQ(counted, c.counted);
        if (!c.record.empty()) {
            EXPECT_THAT(log.records, Contains(c.record));
        }
    }
}

TEST_F(Transfer, MovesEachEntryOnceOverManyPauses) {
    struct stat before = {};
    ASSERT_EQ(stat(list().c_str(), &before), 0);
    EXPECT_TRUE(crypto(0));
    EXPECT_EQ(read(list()), processFile({"f", "g"})) << "nothing may be recorded";
    EXPECT_TRUE(crypto(2)) << "pause seen right after the copy of f";
    EXPECT_THAT(log.records, Contains("I !!! crypto paused !!!"));
    EXPECT_TRUE(filesIn(enc).empty()) << "the copy is discarded";
    EXPECT_TRUE(crypto(3)) << "pause seen before g";
    EXPECT_EQ(read(list()), processFile({"f", "g"}, 1));
    EXPECT_EQ(filesIn(enc), (Files{{"f", "f"}}));
    struct stat after = {};
    ASSERT_EQ(stat(list().c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino) << "rewritten in place";
    EXPECT_TRUE(crypto());
    EXPECT_EQ(filesIn(enc), (Files{{"f", "f"}, {"g", "g"}}));
    EXPECT_TRUE(filesIn(box).empty());
}

}  // namespace
