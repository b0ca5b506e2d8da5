#include "shell/ExitSignal.h"

#include "shell/ExitLimit.h"
#include "utils/Semaphore.h"

namespace kelm {
namespace {

TEST(ExitSignalTest, SignalEndsTheSleepAndTheWait) {
    Semaphore idle(0, 0);
    ExitSignal signal([&idle] { idle.post(); });
    const auto start = std::chrono::steady_clock::now();
    std::thread sleeper([&signal] { signal.sleepFor(60s); });
    ::raise(SIGUSR1);
    EXPECT_TRUE(signal.isSet());
    EXPECT_TRUE(idle.waitFor(10000));
    sleeper.join();
    signal.sleepFor(60s);  // the signal has come already
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
}

TEST(ExitSignalTest, SignalAfterTheEndIsIgnored) {
    std::make_unique<ExitSignal>([] { ADD_FAILURE(); }).reset();
    ::raise(SIGUSR1);
}

TEST(ExitLimitDeathTest, ProcessEndsDespiteAThreadThatNeverDoes) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto hang = [] {
        ExitLimit::start(50ms, 3);
        ExitLimit::start(1ms, 4);  // the first call counts
        Semaphore(0, 0).wait();
    };
    EXPECT_EXIT(hang(), ::testing::ExitedWithCode(3), "");
}

}  // namespace
}  // namespace kelm
