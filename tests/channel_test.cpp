#include "channel/communicator.h"

#include <sys/ioctl.h>

#include <thread>
#include <tuple>

#include <android-base/file.h>

#include "channel/progress_throttle.h"
#include "worker_fixture.h"

namespace {

using std::chrono::microseconds;
using ::testing::Contains;

// Steps are (microseconds after the start, whether a line is due).
TEST(ProgressThrottle, LetsOneLineThroughInItsInterval) {
    const ProgressThrottle::TimePoint start{std::chrono::hours(1)};
    ProgressThrottle throttle(1000, start);
    using Steps = std::vector<std::pair<int64_t, bool>>;
    const Steps chunks = {{0, true},          {999, true},       {400'000, false},
                          {1'000'998, false}, {1'000'999, true}, {2'300'000, true},
                          {1'000'000, true}};
    for (const auto& [time, due] : chunks) {
        EXPECT_EQ(throttle.addProgress(5, start + microseconds(time)), due) << time;
    }
    EXPECT_EQ(throttle.progressTotal(), 1035U);
    const Steps files = {{0, false},          {5'000'999, false}, {5'001'000, true},
                         {10'001'999, false}, {5'000'001, false}, {4'999'000, true}};
    for (const auto& [time, due] : files) {
        EXPECT_EQ(throttle.recordDue(start + microseconds(time)), due) << time;
    }
}

struct Pipes {
    Pipes() {
        EXPECT_TRUE(android::base::Pipe(&commandRead, &commandWrite));
        EXPECT_TRUE(android::base::Pipe(&statusRead, &statusWrite));
    }
    std::string statusLines() {
        std::string lines;
        EXPECT_TRUE(android::base::ReadFdToString(statusRead, &lines));
        return lines;
    }
    android::base::unique_fd commandRead, commandWrite, statusRead, statusWrite;
};

TEST(CommandListener, TakesOnlyTheExactPauseWord) {
    const std::string x2000(2000, 'x');
    using Words = std::vector<std::string>;
    const std::tuple<std::string, bool, Words> cases[] = {
        {"pause\n", true, {}},
        {"pause and more words\n", true, {}},
        {"pause", true, {}},
        {"stop\n\n pause\npause\n", true, {"stop"}},
        {"Pause\npause\t\npause\r\n", false, {"Pause", "pause\t", "pause\r"}},
        {"\n pause\n", false, {}},
        {std::string("\0pause\n", 7), false, {}},
        {x2000 + "\n", false, {x2000.substr(0, 1023), x2000.substr(1023)}},
        {x2000.substr(0, 1023) + "\n", false, {x2000.substr(0, 1023)}},
    };
    for (const auto& [sent, pauses, unknown] : cases) {
        Pipes pipes;
        ASSERT_TRUE(android::base::WriteStringToFd(sent, pipes.commandWrite));
        pipes.commandWrite.reset();
        const auto paused = std::make_shared<std::atomic<bool>>(false);
        LogCapture log;
        listenForCommands(pipes.commandRead.release(), paused);
        EXPECT_EQ(paused->load(), pauses) << sent;
        for (const std::string& word : unknown) {
            EXPECT_THAT(log.records, Contains("E Unknown command [" + word + "]"));
        }
        const size_t words = unknown.size() + (pauses ? 1 : 0);
        EXPECT_THAT(log.records, Contains("D Exit command process").Times(words)) << sent;
    }
}

// The listener may be scheduled only now, and must not find a pointer to what is gone.
TEST(Communicator, MayBeDestroyedBeforeItsListenerStarts) {
    LogCapture log;
    std::vector<std::unique_ptr<Pipes>> all;
    for (int i = 0; i < 200; ++i) {
        auto& pipes = *all.emplace_back(std::make_unique<Pipes>());
        {
            Communicator communicator(pipes.commandRead.release(), pipes.statusWrite.release(), 0,
                                      9);
            ASSERT_TRUE(communicator.init());
            communicator.writeMessagePipe("total_size 7");
            int sent = 0;
            ASSERT_EQ(ioctl(pipes.statusRead.get(), FIONREAD, &sent), 0);
            EXPECT_EQ(sent, 13) << "a line may not wait for the next one";
        }
        ASSERT_TRUE(android::base::WriteStringToFd("pause\n", pipes.commandWrite));
        EXPECT_EQ(pipes.statusLines(), "total_size 7\n");
    }
    for (const auto& pipes : all) pipes->commandWrite.reset();
    // The listeners log through `log` until they have read their last line.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
}

TEST(Communicator, CountsProgressFromTheBaseOfTheJob) {
    Pipes pipes;
    {
        Communicator communicator(pipes.commandRead.release(), pipes.statusWrite.release(), 1000,
                                  9000);
        ASSERT_TRUE(communicator.init());
        communicator.repeatRecordedProgress();
        communicator.updateProgress(4096, false);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        communicator.updateProgress(4, true);
        communicator.repeatRecordedProgress();
    }
    EXPECT_EQ(pipes.statusLines(), "progress 5096 9000\nrecord_progress 5100 9000\n");
    pipes.commandWrite.reset();
}

}  // namespace
