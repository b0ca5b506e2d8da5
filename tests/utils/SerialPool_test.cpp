#include "utils/SerialPool.h"

#include "fakes/FailingMemory.h"
#include "utils/ThreadUtils.h"

namespace kelm {
namespace {

// The calling test's thread owes pools, as a pool's own does.
class SerialPoolTest : public ::testing::Test {
 protected:
    const OwedPools::Scope m_owing;
};

// The pool is idle afterwards.
int ownThread(SerialPool& pool) {
    const int thread = pool.enqueue([] { return ThreadUtils::getThreadId(); }).get();
    EXPECT_TRUE(pool.waitIdleFor(10s));
    return thread;
}

// In a task that is helped: the kernel's id, behind the borrowed one.
bool isHelped() { return static_cast<int>(::syscall(SYS_gettid)) != ThreadUtils::getThreadId(); }

TEST_F(SerialPoolTest, ThreadThatFillsIdleLightPoolsRunsThemWhenItSettles) {
    SerialPool first("First", 10, SerialPool::LIGHT);
    SerialPool second("Second", 10, SerialPool::LIGHT);
    SerialPool heavy("Heavy", 10);
    const int firstThread = ownThread(first);
    const int secondThread = ownThread(second);
    std::vector<std::string> order;
    const auto note = [&](const char* name, int thread) {
        EXPECT_EQ(ThreadUtils::getThreadId(), thread);
        EXPECT_TRUE(isHelped());
        order.push_back(name);
    };
    first.post([&] {
        note("first", firstThread);
        second.post([&] { note("second", secondThread); });
        first.post([&] { note("first again", firstThread); });
        OwedPools::settle();  // inside of a help: nothing happens
        order.push_back("end of first");
    });
    first.enqueueTask([&] { note("ahead", firstThread); }, true);
    std::promise<bool> ranHelped;
    heavy.post([&] { ranHelped.set_value(isHelped()); });
    EXPECT_TRUE(order.empty());
    EXPECT_FALSE(OwedPools::areSettled());
    OwedPools::settle();
    EXPECT_TRUE(OwedPools::areSettled());
    EXPECT_THAT(order, ElementsAre("ahead", "first", "end of first", "first again", "second"));
    EXPECT_FALSE(ranHelped.get_future().get());
}

TEST_F(SerialPoolTest, ThreadWithoutMemoryForWhatItOwesLeavesItToThePool) {
    SerialPool pool("Pool", 10, SerialPool::LIGHT);
    (void)ownThread(pool);
    const int own = ownThread(pool);  // and each of the two queues has its memory
    std::promise<int> ran;
    std::thread([&] {
        const OwedPools::Scope owing;
        const NoMemoryFrom none(1);
        pool.post([&] { ran.set_value(ThreadUtils::getThreadId()); });
        EXPECT_TRUE(OwedPools::areSettled());
    }).join();
    EXPECT_EQ(ran.get_future().get(), own);
}

TEST_F(SerialPoolTest, TaskForTheOwnThreadAndLongHelpsHandTheTurnBackInOrder) {
    SerialPool pool("Pool", 2000, SerialPool::LIGHT);
    (void)ownThread(pool);
    std::vector<int> order;
    std::vector<bool> helped;
    const auto note = [&](int number) {
        order.push_back(number);
        helped.push_back(isHelped());
    };
    pool.post([&] { note(0); });
    pool.postOwn([&] { note(1); });
    pool.post([&] { note(2); });
    OwedPools::settle();
    ASSERT_TRUE(pool.waitIdleFor(10s));
    EXPECT_THAT(order, ElementsAre(0, 1, 2));
    EXPECT_THAT(helped, ElementsAre(true, false, false));

    order.clear();
    helped.clear();
    for (int i = 0; i < 1000; ++i) pool.post([&, i] { note(i); });
    OwedPools::settle();
    ASSERT_TRUE(pool.waitIdleFor(10s));
    EXPECT_TRUE(std::ranges::is_sorted(order));
    EXPECT_TRUE(helped.front());
    EXPECT_FALSE(helped.back()) << "one help must not take a thread without bound";
}

TEST_F(SerialPoolTest, HelpedTaskMeetsAFullQueueAndItsPoolWaitsOnItsOwnThread) {
    SerialPool full("Full", 1);
    SerialPool light("Light", 10, SerialPool::LIGHT);
    (void)ownThread(light);
    std::promise<void> open;
    std::promise<void> entered;
    full.post([&] {
        entered.set_value();
        open.get_future().wait();
    });
    OwedPools::settle();
    entered.get_future().wait();
    full.post([] {});  // takes the only place
    std::atomic<int> ran{0};
    std::atomic<bool> next{false};
    light.post([&] { full.post([&] { ++ran; }); });
    light.post([&] { next = true; });
    OwedPools::settle();  // does not wait, though the queue is full
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    EXPECT_FALSE(next) << "a pool behind a full queue must wait for room";
    open.set_value();
    EXPECT_TRUE(eventually([&] { return next && ran == 1; }));
}

TEST_F(SerialPoolTest, ThreadThatWaitsHandsOverWhatItOwes) {
    SerialPool pool("Pool", 1, SerialPool::LIGHT);
    (void)ownThread(pool);
    Mutex mutex;
    CondVar done;
    bool isDone = false;
    const auto end = [&] {
        MutexLock lock(mutex);
        isDone = true;
        done.notifyAll();
    };
    const auto wait = [&] {
        MutexLock lock(mutex);
        while (!isDone) done.wait(mutex);
        isDone = false;
    };
    pool.post(end);
    wait();
    pool.post(end);
    pool.post([] {});  // waits for room in a queue that this thread owes
    wait();
    pool.post(end);
    EXPECT_TRUE(pool.waitIdleFor(10s));
    wait();
    pool.post(end);
    EXPECT_EQ(pool.enqueue([] { return 7; }).get(), 7);
    wait();
    {
        SerialPool owed("Owed", 1, SerialPool::LIGHT);
        owed.post(end);
    }
    EXPECT_TRUE(isDone) << "the end of a pool runs what is queued";
}

TEST_F(SerialPoolTest, EndWaitsForTheThreadThatOwesOrHelps) {
    for (const bool helps : {false, true}) {
        SCOPED_TRACE(helps);
        std::promise<void> inTask;
        std::promise<void> end;
        std::atomic<bool> ended{false};
        auto pool = std::make_unique<SerialPool>("Pool", 10, SerialPool::LIGHT);
        (void)ownThread(*pool);
        std::thread other([&] {
            const OwedPools::Scope owing;
            if (helps) {
                pool->post([&] {
                    inTask.set_value();
                    end.get_future().wait();
                });
                OwedPools::settle();
            } else {
                pool->post([] {});
                inTask.set_value();
                end.get_future().wait();
                OwedPools::settle();
            }
        });
        inTask.get_future().wait();
        std::thread destroyer([&] {
            pool.reset();
            ended = true;
        });
        for (int i = 0; i < 1000; ++i) std::this_thread::yield();
        EXPECT_FALSE(ended);
        end.set_value();
        destroyer.join();
        other.join();
    }
}

// Pools in a row with random limits, tasks for the own thread, head insertions and pauses: each
// task runs once, alone in its pool, in order, and no more are queued than the limit and one a
// helper.
TEST(SerialPoolStressTest, RandomPoolsInARowKeepOrderExclusionAndLimits) {
    constexpr int kPools = 5;
    constexpr int kTasks = 3000;
    constexpr int kProducers = 3;
    for (unsigned seed = 1; seed <= 4; ++seed) {
        SCOPED_TRACE(seed);
        struct Stage {
            std::unique_ptr<SerialPool> pool;
            std::atomic<int> inside{0};
            std::atomic<int> overlaps{0};
            std::atomic<int> disorders{0};
            std::array<int, kProducers> last{};
            unsigned random = 0;
        };
        std::array<Stage, kPools> stages;
        std::mt19937 random(seed);
        std::atomic<int> finished{0};
        for (Stage& stage : stages) {
            const auto weight = random() % 4 == 0 ? SerialPool::HEAVY : SerialPool::LIGHT;
            stage.pool = std::make_unique<SerialPool>("Stage", 1 + random() % 40, weight);
            stage.random = random();
            stage.last.fill(-1);
        }
        std::function<void(int, int, int)> pass = [&](int at, int producer, int number) {
            Stage& stage = stages[at];
            if (stage.inside.fetch_add(1) != 0) ++stage.overlaps;
            if (stage.last[producer] != number - 1) ++stage.disorders;
            stage.last[producer] = number;
            stage.random = stage.random * 1664525U + 1013904223U;
            const unsigned choice = stage.random >> 24;
            if (at + 1 == kPools) {
                ++finished;
            } else {
                const auto next = [&pass, at, producer, number] { pass(at + 1, producer, number); };
                SerialPool& pool = *stages[at + 1].pool;
                choice % 8 == 0   ? pool.postOwn(next)
                : choice % 2 == 0 ? pool.post(next)
                                  : pool.postNotice(next);
                if (choice % 16 == 1) pool.enqueueTask([] {}, true);
            }
            stage.inside.fetch_sub(1);
        };
        std::vector<std::thread> producers;
        for (int producer = 0; producer < kProducers; ++producer) {
            producers.emplace_back([&, producer] {
                const OwedPools::Scope owing;
                for (int number = 0; number < kTasks; ++number) {
                    stages[0].pool->post([&pass, producer, number] { pass(0, producer, number); });
                    if (number % (3 + producer * 20) == 0) OwedPools::settle();
                }
            });
        }
        for (std::thread& producer : producers) producer.join();
        EXPECT_TRUE(eventually([&] { return finished == kTasks * kProducers; })) << finished;
        for (Stage& stage : stages) {
            stage.pool.reset();
            EXPECT_EQ(stage.overlaps, 0);
            EXPECT_EQ(stage.disorders, 0);
        }
    }
}

// From here on the tests' thread owes nothing: it wakes the pools that it fills.
// The tasks that the thread has taken out in one go count, too.
TEST(SerialPoolOfOthersTest, FullQueueHoldsProducersButNotNoticesNorItself) {
    SerialPool pool("Full", 3);
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

TEST(SerialPoolOfOthersTest, DestructionRunsWhatIsQueuedAndRefusesMore) {
    std::vector<int> order;
    {
        SerialPool pool("Drain", 100);
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

TEST(SerialPoolOfOthersTest, ClosuresOfAnySizeRunAndTheirExceptionsReachTheFutureOnly) {
    SerialPool pool("CltMgr", 10);
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

}  // namespace
}  // namespace kelm
