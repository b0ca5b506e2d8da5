#include "utils/FpsCounter.h"
#include "utils/UtilizationCounter.h"

namespace kelm {
namespace {

using Clock = std::chrono::steady_clock;

// The time that the counters see.
Clock::time_point g_now = Clock::time_point() + 1h;
Clock::time_point fakeNow() { return g_now; }

TEST(CountersTest, RateNeedsTwoEventsAndDividesByTheSpanThatTheyCover) {
    FpsCounter counter("Category", "object", "", &fakeNow);
    counter.m_bufferTimeMs = 1000;
    counter.update();
    EXPECT_EQ(counter.getFps(), 0.0f);
    counter.update();
    EXPECT_TRUE(std::isinf(counter.getFps()));
    g_now += 100ms;
    counter.update();
    EXPECT_FLOAT_EQ(counter.getFps(), 30.0f);  // three events in 100 ms
    g_now += 899ms;
    EXPECT_FLOAT_EQ(counter.getFps(), 3000.0f / 999.0f);
    g_now += 1ms;  // the first two are one window old
    EXPECT_EQ(counter.getFps(), 0.0f);
    counter.m_bufferTimeMs = 10000;
    for (int i = 0; i < 500000; ++i) {  // so many that they share stamps
        counter.update();
        g_now += 25us;
    }
    EXPECT_NEAR(counter.getFps(), 40000.0, 100.0);
}

TEST(CountersTest, BusyPeriodsAreClippedToTheWindow) {
    UtilizationCounter counter("KelmDevice", "a", "Utilization", &fakeNow);
    EXPECT_EQ(counter.getUtilization(), 0.0f);
    counter.start();
    g_now += 7000ms;
    EXPECT_FLOAT_EQ(counter.getUtilization(), 1.0f);
    counter.stop();
    g_now += 2500ms;
    EXPECT_FLOAT_EQ(counter.getUtilization(), 0.5f);
    counter.start();
    g_now += 500ms;
    EXPECT_FLOAT_EQ(counter.getUtilization(), 0.5f);
    counter.stop();
    g_now += 5000ms;
    EXPECT_EQ(counter.getUtilization(), 0.0f);
    for (int i = 0; i < 200000; ++i) {  // so many that they share records
        counter.start();
        g_now += 30us;
        counter.stop();
        g_now += 10us;
    }
    EXPECT_NEAR(counter.getUtilization(), 0.75, 0.01);
}

}  // namespace
}  // namespace kelm
