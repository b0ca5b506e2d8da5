#include "utils/ThreadPool.h"

#include "fakes/Eventually.h"
#include "fakes/TestPch.h"
#include "utils/ThreadUtils.h"

namespace kelm {
namespace {

using ::testing::ElementsAre;

// The tasks that the thread has taken out in one go count, too.
TEST(ThreadPoolTest, FullQueueHoldsProducersButNotNoticesNorItself) {
    ThreadPool pool("Full", 1, 3);
    std::atomic<int> ran{0};
    std::atomic<int> accepted{0};
    std::promise<void> entered;
    std::promise<void> first;
    std::promise<void> second;
    pool.post([&] {
        entered.set_value();
        first.get_future().wait();
    });
    entered.get_future().wait();
    pool.post([&] { second.get_future().wait(); });
    pool.post([&] {
        // The pool's own thread would wait for itself.
        for (int i = 0; i < 5; ++i) pool.post([&ran] { ++ran; });
    });
    pool.post([&ran] { ++ran; });
    std::thread producer([&] {
        for (int i = 0; i < 4; ++i, ++accepted) pool.post([&ran] { ++ran; });
    });
    first.set_value();  // the thread takes all three out of the queue and stands in the first
    EXPECT_TRUE(eventually([&] { return accepted >= 1; }));
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    EXPECT_EQ(accepted, 1);
    for (int i = 0; i < 5; ++i) pool.postNotice([&ran] { ++ran; });
    second.set_value();
    producer.join();
    EXPECT_TRUE(eventually([&] { return ran == 15; }));
}

TEST(ThreadPoolTest, DestructionRunsWhatIsQueuedAndRefusesMore) {
    std::vector<int> order;
    {
        ThreadPool pool("Drain", 1, 100);
        std::promise<void> stopping;
        pool.post([&pool, end = stopping.get_future().share()] {
            end.wait();
            // By now the destructor waits in the join, or is about to set the flag.
            EXPECT_TRUE(eventually([&] {
                try {
                    pool.postNotice([] {});
                } catch (const std::runtime_error&) {
                    return true;
                }
                return false;
            }));
        });
        for (int i = 0; i < 3; ++i) pool.post([&order, i] { order.push_back(i); });
        stopping.set_value();
    }
    EXPECT_THAT(order, ElementsAre(0, 1, 2));
}

TEST(ThreadPoolTest, ClosuresOfAnySizeRunAndTheirExceptionsReachTheFutureOnly) {
    ThreadPool pool("CltMgr", 1, 10);
    pool.post([] { throw std::runtime_error("logged"); });
    auto failed = pool.enqueue([]() -> int { throw std::runtime_error("kept"); });
    EXPECT_THROW(failed.get(), std::runtime_error);
    std::array<char, 4 * InlineTask::kInlineSize> large{};
    large.back() = 'x';
    auto owned = std::make_unique<char>('y');
    EXPECT_EQ(pool.enqueue([large] { return large.back(); }).get(), 'x');
    EXPECT_EQ(pool.enqueue([owned = std::move(owned)] { return *owned; }).get(), 'y');
    EXPECT_EQ(pool.enqueue([] { return ThreadUtils::getName(); }).get(), "CltMgrT0");
}

TEST(ThreadPoolTest, IdleIsToldOnlyWhenNothingRuns) {
    ThreadPool pool("Idle", 2, 10);
    EXPECT_TRUE(pool.waitIdleFor(std::chrono::seconds(10)));
    std::promise<void> gate;
    pool.post([&] { gate.get_future().wait(); });
    EXPECT_FALSE(pool.waitIdleFor(std::chrono::milliseconds(1)));
    gate.set_value();
    EXPECT_TRUE(pool.waitIdleFor(std::chrono::seconds(10)));
}

}  // namespace
}  // namespace kelm
