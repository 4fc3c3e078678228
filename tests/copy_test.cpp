#include <fcntl.h>
#include <sys/stat.h>

#include <utility>

#include "engine/copy_file.h"
#include "platform/move_chunk.h"
#include "worker_fixture.h"

namespace fs = std::filesystem;

namespace {

using Reports = std::vector<std::pair<unsigned long, bool>>;

std::string someBytes(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 + i / 251);
    return bytes;
}

class Copy : public WorkerTest {
  protected:
    int copy(int pausesAfter = 1000) {
        reports.clear();
        return copyFile(
            box / "four", enc / "copy",
            [this](unsigned long bytes, bool done) { reports.emplace_back(bytes, done); },
            [&pausesAfter] { return pausesAfter-- == 0; });
    }
    Reports reports;
};

TEST_F(Copy, ReportsEachChunkAndTheNameWithTheLast) {
    const std::pair<size_t, Reports> cases[] = {
        {0, {{4, true}}},
        {1, {{5, true}}},
        {262144, {{262148, true}}},
        {262145, {{262144, false}, {5, true}}},
        {600000, {{262144, false}, {262144, false}, {75716, true}}},
    };
    for (const auto& [size, expected] : cases) {
        write(box / "four", someBytes(size));
        fs::remove(enc / "copy");
        EXPECT_EQ(copy(), 0);
        EXPECT_EQ(reports, expected) << size;
        EXPECT_TRUE(read(enc / "copy") == someBytes(size)) << size;
    }
}

TEST_F(Copy, StopsBeforeAChunkOnPause) {
    write(box / "four", someBytes(600000));
    EXPECT_EQ(copy(0), 0);
    EXPECT_TRUE(reports.empty());
    EXPECT_EQ(copy(2), 0);
    EXPECT_EQ(reports, (Reports{{262144, false}, {262144, false}}));
    EXPECT_EQ(fs::file_size(enc / "copy"), 524288U);
}

// sendfile refuses a destination open for appending, as it refuses one on eCryptfs.
TEST_F(Copy, GoesThroughABufferWhereSendfileIsRefused) {
    write(box / "four", someBytes(300000));
    const android::base::unique_fd source(open((box / "four").c_str(), O_RDONLY));
    const android::base::unique_fd destination(
        open((enc / "copy").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600));
    off_t offset = 7;
    EXPECT_EQ(platform::moveChunk(destination, source, &offset, 262144), 262144);
    EXPECT_EQ(platform::moveChunk(destination, source, &offset, 262144), 300000 - 262144 - 7);
    EXPECT_EQ(errno, 0) << "the source has just ended";
    EXPECT_EQ(offset, 300000);
    EXPECT_TRUE(read(enc / "copy") == someBytes(300000).substr(7));

    const android::base::unique_fd full(open("/dev/full", O_WRONLY | O_APPEND));
    offset = 0;
    EXPECT_EQ(platform::moveChunk(full, source, &offset, 10), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(offset, 0);
}

}  // namespace
