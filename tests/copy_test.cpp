#include <fcntl.h>

#include "platform/move_chunk.h"
#include "worker_fixture.h"

namespace {

class Copy : public WorkerTest {};

// sendfile refuses a destination open for appending, as it refuses one on eCryptfs.
TEST_F(Copy, GoesThroughABufferWhereSendfileIsRefused) {
    std::string bytes;
    while (bytes.size() < 300000) bytes += std::to_string(bytes.size());
    bytes.resize(300000);
    write(box / "f", bytes);
    const android::base::unique_fd source(open((box / "f").c_str(), O_RDONLY));
    const android::base::unique_fd destination(
        open((enc / "copy").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600));
    off_t offset = 7;
    EXPECT_EQ(platform::moveChunk(destination, source, &offset, 262144), 262144);
    EXPECT_EQ(platform::moveChunk(destination, source, &offset, 262144), 300000 - 262144 - 7);
    EXPECT_EQ(errno, 0) << "the source has just ended";
    EXPECT_EQ(offset, 300000);
    EXPECT_TRUE(read(enc / "copy") == bytes.substr(7));

    const android::base::unique_fd full(open("/dev/full", O_WRONLY | O_APPEND));
    offset = 0;
    EXPECT_EQ(platform::moveChunk(full, source, &offset, 10), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(offset, 0);
}

}  // namespace
