#include "channel/communicator.h"

#include <thread>

#include <android-base/file.h>

#include "channel/progress_throttle.h"
#include "worker_fixture.h"

namespace {

using std::chrono::microseconds;

TEST(ProgressThrottle, LetsOneProgressLineASecondThrough) {
    const ProgressThrottle::TimePoint start{std::chrono::hours(1)};
    ProgressThrottle throttle(1000, start);
    EXPECT_TRUE(throttle.addProgress(4096, start));
    EXPECT_EQ(throttle.progressTotal(), 5096U);
    struct Step {
        int64_t time;  // microseconds after the start
        bool due;
    };
    for (const Step& step : {Step{999, true}, Step{400'000, false}, Step{1'000'898, false},
                             Step{1'000'999, true}, Step{2'300'000, true}, Step{1'000'000, true}}) {
        EXPECT_EQ(throttle.addProgress(1, start + microseconds(step.time)), step.due) << step.time;
    }
    EXPECT_EQ(throttle.progressTotal(), 5102U);
}

TEST(ProgressThrottle, LetsOneRecordLineInMoreThanFiveSecondsThrough) {
    const ProgressThrottle::TimePoint start{std::chrono::hours(1)};
    ProgressThrottle throttle(0, start);
    EXPECT_FALSE(throttle.recordDue(start));
    EXPECT_FALSE(throttle.recordDue(start + microseconds(5'000'999)));
    EXPECT_TRUE(throttle.recordDue(start + microseconds(5'001'000)));
    EXPECT_FALSE(throttle.recordDue(start + microseconds(10'001'999)));
    EXPECT_FALSE(throttle.recordDue(start + microseconds(5'000'001)));
    EXPECT_TRUE(throttle.recordDue(start + microseconds(5'000'000 - 1'000)));
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
    struct Case {
        std::string sent;
        bool pauses;
        std::vector<std::string> unknown;
        size_t words;
    };
    const std::string x2000(2000, 'x');
    const Case cases[] = {
        {"pause\n", true, {}, 1},
        {"pause and more words\n", true, {}, 1},
        {"pause", true, {}, 1},
        {"stop\n\n pause\npause\n", true, {"stop"}, 2},
        {"Pause\npause\t\npause\r\n", false, {"Pause", "pause\t", "pause\r"}, 3},
        {"\n pause\n", false, {}, 0},
        {std::string("\0pause\n", 7), false, {}, 0},
        {x2000 + "\n", false, {x2000.substr(0, 1023), x2000.substr(1023)}, 2},
        {x2000.substr(0, 1023) + "\n", false, {x2000.substr(0, 1023)}, 1},
    };
    for (const Case& c : cases) {
        Pipes pipes;
        ASSERT_TRUE(android::base::WriteStringToFd(c.sent, pipes.commandWrite));
        pipes.commandWrite.reset();
        const auto paused = std::make_shared<std::atomic<bool>>(false);
        LogCapture log;
        listenForCommands(pipes.commandRead.release(), paused);
        EXPECT_EQ(paused->load(), c.pauses) << c.sent;
        std::vector<std::string> unknown;
        for (const std::string& record : log.records) {
            if (record.rfind("E Unknown command [", 0) != 0) continue;
            unknown.push_back(record.substr(19, record.size() - 20));
        }
        EXPECT_EQ(unknown, c.unknown);
        EXPECT_EQ(std::count(log.records.begin(), log.records.end(), "D Exit command process"),
                  static_cast<long>(c.words));
    }
}

TEST(Communicator, DropsLinesWithoutAStream) {
    LogCapture log;
    Communicator communicator(-1, -1, 0, 0);
    communicator.writeMessagePipe("lost");
    EXPECT_FALSE(communicator.init());
    communicator.writeMessagePipe("lost too");
    Communicator::commandProcess(nullptr);
    EXPECT_EQ(log.records,
              (std::vector<std::string>{"E Failed to open the status pipe:-1: Bad file descriptor",
                                        "E Invalid communicator"}));
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
