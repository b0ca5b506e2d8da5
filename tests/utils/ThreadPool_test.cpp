#include "utils/ThreadPool.h"

#include <gtest/gtest.h>

#include "fakes/Eventually.h"
#include "utils/ThreadUtils.h"

namespace kelm {
namespace {

using ::testing::ElementsAre;

// Holds the pool's only thread until it is opened.
class Gate {
 public:
    explicit Gate(ThreadPool& pool) {
        pool.post([this] {
            m_entered.set_value();
            m_open.get_future().wait();
        });
        m_entered.get_future().wait();
    }
    void open() { m_open.set_value(); }

 private:
    std::promise<void> m_entered;
    std::promise<void> m_open;
};

TEST(ThreadPoolTest, HeadInsertionOvertakesAllThatWaits) {
    for (const bool takenOut : {false, true}) {
        SCOPED_TRACE(takenOut);
        ThreadPool pool("Order", 1, 100);
        std::vector<int> order;
        Gate gate(pool);
        const auto overtake = [&] { pool.enqueueTask([&order] { order.push_back(9); }, true); };
        // The first task takes the others out of the queue with it.
        if (takenOut) pool.post(overtake);
        for (int i = 0; i < 3; ++i) pool.post([&order, i] { order.push_back(i); });
        if (!takenOut) overtake();
        gate.open();
        pool.enqueue([] {}).get();
        EXPECT_THAT(order, ElementsAre(9, 0, 1, 2));
    }
}

TEST(ThreadPoolTest, FullQueueHoldsProducersButNotNoticesNorItself) {
    ThreadPool pool("Full", 1, 2);
    std::atomic<int> ran{0};
    Gate gate(pool);
    pool.post([&] {
        // The pool's own thread would wait for itself.
        for (int i = 0; i < 5; ++i) pool.post([&ran] { ++ran; });
    });
    pool.post([&ran] { ++ran; });
    for (int i = 0; i < 5; ++i) pool.postNotice([&ran] { ++ran; });
    std::atomic<bool> entered{false};
    std::atomic<bool> through{false};
    std::thread producer([&] {
        entered = true;
        pool.post([&ran] { ++ran; });
        through = true;
    });
    EXPECT_TRUE(eventually([&] { return entered.load(); }));
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    EXPECT_FALSE(through);
    gate.open();
    producer.join();
    EXPECT_TRUE(eventually([&] { return ran == 12; }));
}

TEST(ThreadPoolTest, TasksTakenInABatchStillCountAgainstTheLimit) {
    ThreadPool pool("Limit", 1, 3);
    Gate first(pool);
    std::promise<void> second;
    pool.post([&] { second.get_future().wait(); });
    for (int i = 0; i < 2; ++i) pool.post([] {});
    first.open();  // the thread takes all three out of the queue and stands in the first
    std::atomic<int> accepted{0};
    std::thread producer([&] {
        for (int i = 0; i < 4; ++i, ++accepted) pool.post([] {});
    });
    EXPECT_TRUE(eventually([&] { return accepted >= 1; }));
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    EXPECT_EQ(accepted, 1);
    second.set_value();
    producer.join();
}

TEST(ThreadPoolTest, DestructionRunsWhatIsQueuedAndRefusesMore) {
    std::vector<int> order;
    std::string refusal;
    std::promise<void> stopping;
    {
        ThreadPool pool("Drain", 1, 100);
        pool.post([&] {
            stopping.get_future().wait();
            // By now the destructor waits in the join, or is about to set the flag.
            EXPECT_TRUE(eventually([&] {
                try {
                    pool.postNotice([] {});
                } catch (const std::runtime_error& error) {
                    refusal = error.what();
                }
                return !refusal.empty();
            }));
        });
        for (int i = 0; i < 3; ++i) pool.post([&order, i] { order.push_back(i); });
        stopping.set_value();
    }
    EXPECT_EQ(refusal, "failed to enqueue, threadPool is stopped");
    EXPECT_THAT(order, ElementsAre(0, 1, 2));
}

TEST(ThreadPoolTest, ClosuresOfAnySizeRunAndTheirExceptionsReachTheFutureOnly) {
    ThreadPool pool("CltMgr", 1, 10);
    pool.post([] { throw std::runtime_error("logged"); });
    auto failed = pool.enqueue([]() -> int { throw std::runtime_error("kept"); });
    EXPECT_THROW(failed.get(), std::runtime_error);
    std::array<char, 4 * InlineTask::kInlineSize> large{};
    large.back() = 'x';
    EXPECT_EQ(pool.enqueue([large] { return large.back(); }).get(), 'x');
    auto owned = std::make_unique<int>(3);
    EXPECT_EQ(pool.enqueue([owned = std::move(owned)] { return *owned; }).get(), 3);
    EXPECT_EQ(pool.enqueue([] { return ThreadUtils::getName(); }).get(), "CltMgrT0");
}

TEST(ThreadPoolTest, IdleIsToldOnlyWhenNothingRuns) {
    ThreadPool pool("Idle", 2, 10);
    EXPECT_TRUE(pool.waitIdleFor(std::chrono::seconds(10)));
    Gate gate(pool);
    EXPECT_FALSE(pool.waitIdleFor(std::chrono::milliseconds(1)));
    gate.open();
    EXPECT_TRUE(pool.waitIdleFor(std::chrono::seconds(10)));
}

}  // namespace
}  // namespace kelm
