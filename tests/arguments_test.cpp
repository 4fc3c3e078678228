#include "arguments.h"

#include <algorithm>
#include <tuple>

#include "worker_fixture.h"

namespace {

using ::testing::Contains;

struct ArgumentCase {
    size_t position;
    const char* text;
    const char* message;  ///< Null when the argument is taken.
    int64_t value;        ///< What it becomes, as bits.
};

const ArgumentCase kArgumentCases[] = {
    {1, "1.5", nullptr, 0},
    {1, "2", "E wrong updater binary API; expected 1 ; got 2", 0},
    {1, "01", "E wrong updater binary API; expected 1 ; got 01", 0},
    {1, "", "E wrong updater binary API; expected 1 ; got ", 0},
    {2, " 2", nullptr, 2},
    {2, "2 ", "E Failed to parse action in 2 ", 0},
    {2, "0x1", nullptr, 1},
    {2, "010", nullptr, 10},
    {4, "2147483647", nullptr, 2147483647},
    {4, "2147483648", "E Failed to parse cmdFd in 2147483648", 0},
    {4, "0x", "E Failed to parse cmdFd in 0x", 0},
    {5, "-2147483648", nullptr, -2147483648},
    {5, "9223372036854775808", "E Failed to parse statusFd in 9223372036854775808", 0},
    {6, "18446744073709551615", nullptr, -1},
    {6, "18446744073709551616", "E Failed to parse baseSize in 18446744073709551616", 0},
    {6, "-0", "E Failed to parse baseSize in -0", 0},
    {6, "+7", nullptr, 7},
    {7, "+0x7", "E Failed to parse totalSize in +0x7", 0},
    {7, " 0x7", nullptr, 7},
};

TEST(Arguments, EachFollowsItsRule) {
    for (const ArgumentCase& c : kArgumentCases) {
        SCOPED_TRACE(testing::Message() << "argument " << c.position << " '" << c.text << "'");
        std::vector<const char*> argv = {"VaultMover", "1", "0", "", "3", "4", "5", "6"};
        argv[c.position] = c.text;
        // The first bad one ends it.
        if (c.message != nullptr) std::fill(argv.begin() + c.position + 1, argv.end(), "x");
        LogCapture log;
        Arguments parsed;
        EXPECT_EQ(parseArguments(8, argv.data(), &parsed), c.message == nullptr);
        const uint64_t values[] = {static_cast<uint64_t>(parsed.action),
                                   0,
                                   static_cast<uint64_t>(parsed.cmdFd),
                                   static_cast<uint64_t>(parsed.statusFd),
                                   parsed.baseSize,
                                   parsed.totalSize};
        if (c.message != nullptr) {
            EXPECT_EQ(log.records, std::vector<std::string>{c.message});
        } else if (c.position > 1) {
            EXPECT_EQ(values[c.position - 2], static_cast<uint64_t>(c.value));
        }
    }
}

class Start : public WorkerTest {};

TEST_F(Start, StopsAtTheFirstBadArgumentOrUnknownAction) {
    using Lines = std::vector<std::string>;
    for (const size_t count : {0, 6, 8}) {
        EXPECT_EQ(WorkerProcess(Lines(count, "1")).finish().log,
                  Lines{"E unexpected number of arguments: " + std::to_string(count + 1)});
    }
    const std::string rule = "I " + std::string(35, '=');
    const RunResult result = WorkerProcess({"1.5", "3", "/a b", "3", "0x4", "7", "8"}).finish();
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.log, (Lines{rule, "I version : 1.5", "I IPC cmdFd : 3", "I IPC statusFd : 4",
                                 "I crypto path : /a b", "I crypto action : 3",
                                 "I crypto baseSize : 7", "I crypto totalSize : 8", rule}));
}

TEST_F(Start, DebugRecordsNeedOneOfTheTwoSwitches) {
    for (const auto& [debug, debuggable, expected] :
         {std::tuple{"", "", false}, {"1", "0", true}, {"0", "true", true}, {"no", "no", false}}) {
        setenv("vold.ecryptfs.debug", debug, 1);
        setenv("ro.debuggable", debuggable, 1);
        EXPECT_THAT(run(1).log, Contains("D CryptWorker crypto +++ ").Times(expected ? 1 : 0))
            << debug << debuggable;
    }
    unsetenv("vold.ecryptfs.debug");
    unsetenv("ro.debuggable");
}

}  // namespace
