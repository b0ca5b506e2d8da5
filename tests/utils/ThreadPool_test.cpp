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

TEST(ThreadPoolTest, OneThreadRunsInOrderAndHeadInsertionOvertakesTheQueueOnly) {
    ThreadPool pool("Order", 1, 100);
    std::vector<int> order;
    Gate gate(pool);
    for (int i = 0; i < 3; ++i) pool.post([&order, i] { order.push_back(i); });
    pool.enqueueTask([&order] { order.push_back(9); }, true);
    gate.open();
    pool.enqueue([] {}).get();
    EXPECT_THAT(order, ElementsAre(9, 0, 1, 2));
}

TEST(ThreadPoolTest, HeadInsertionOvertakesABatchThatWasTakenOut) {
    ThreadPool pool("Batch", 1, 100);
    std::vector<int> order;
    Gate gate(pool);
    // The first of these takes the others out of the queue with it.
    pool.post([&] { pool.enqueueTask([&order] { order.push_back(9); }, true); });
    for (int i = 0; i < 3; ++i) pool.post([&order, i] { order.push_back(i); });
    gate.open();
    pool.enqueue([] {}).get();
    EXPECT_THAT(order, ElementsAre(9, 0, 1, 2));
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
    pool.post([] {});
    pool.post([] {});
    first.open();  // the thread takes all three out of the queue and stands in the first
    std::atomic<int> accepted{0};
    std::thread producer([&] {
        for (int i = 0; i < 4; ++i) {
            pool.post([] {});
            ++accepted;
        }
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
    auto pool = std::make_unique<ThreadPool>("Drain", 1, 100);
    ThreadPool* const raw = pool.get();
    std::promise<void> stopping;
    pool->post([&] {
        stopping.get_future().wait();
        // By now the destructor waits in the join, or is about to set the flag.
        EXPECT_TRUE(eventually([&] {
            try {
                raw->postNotice([&order] { order.push_back(-1); });
            } catch (const std::runtime_error& error) {
                refusal = error.what();
            }
            return !refusal.empty();
        }));
    });
    for (int i = 0; i < 3; ++i) pool->post([&order, i] { order.push_back(i); });
    stopping.set_value();
    pool.reset();
    EXPECT_EQ(refusal, "failed to enqueue, threadPool is stopped");
    order.erase(std::remove(order.begin(), order.end(), -1), order.end());
    EXPECT_THAT(order, ElementsAre(0, 1, 2));
}

TEST(ThreadPoolTest, ExceptionsReachTheFutureAndNeverTheThread) {
    ThreadPool pool("Throw", 1, 10);
    pool.post([] { throw std::runtime_error("logged"); });
    auto failed = pool.enqueue([]() -> int { throw std::runtime_error("kept"); });
    EXPECT_THROW(failed.get(), std::runtime_error);
    EXPECT_EQ(pool.enqueue([] { return 7; }).get(), 7);
}

TEST(ThreadPoolTest, LargeClosuresAndMoveOnlyCapturesSurviveTheQueue) {
    ThreadPool pool("Large", 1, 10);
    std::array<char, 4 * InlineTask::kInlineSize> large{};
    large.back() = 'x';
    auto owned = std::make_unique<int>(3);
    EXPECT_EQ(pool.enqueue([large] { return large.back(); }).get(), 'x');
    EXPECT_EQ(pool.enqueue([owned = std::move(owned)] { return *owned; }).get(), 3);
}

TEST(ThreadPoolTest, IdleIsToldOnlyWhenNothingRuns) {
    ThreadPool pool("Idle", 2, 10);
    EXPECT_TRUE(pool.waitIdleFor(std::chrono::seconds(10)));
    std::promise<void> open;
    pool.post([&] { open.get_future().wait(); });
    EXPECT_FALSE(pool.waitIdleFor(std::chrono::milliseconds(1)));
    open.set_value();
    EXPECT_TRUE(pool.waitIdleFor(std::chrono::seconds(10)));
}

TEST(ThreadPoolTest, ThreadsAreNamedAfterPoolAndIndex) {
    ThreadPool pool("CltMgr", 1, 10);
    EXPECT_EQ(pool.enqueue([] { return ThreadUtils::getName(); }).get(), "CltMgrT0");
}

TEST(ThreadPoolTest, ManyProducersLoseNothing) {
    std::atomic<uint64_t> sum{0};
    {
        ThreadPool pool("Many", 1, 8);
        std::vector<std::thread> producers;
        for (int i = 0; i < 4; ++i) {
            producers.emplace_back([&] {
                for (int n = 0; n < 5000; ++n) pool.post([&sum] { ++sum; });
            });
        }
        for (std::thread& producer : producers) producer.join();
    }
    EXPECT_EQ(sum, 20000u);
}

}  // namespace
}  // namespace kelm
