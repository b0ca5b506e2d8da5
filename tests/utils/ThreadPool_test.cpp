#include "utils/ThreadPool.h"

namespace kelm {
namespace {

TEST(ThreadPoolTest, TasksOverlapAFullQueueHoldsProducersAndIdleIsToldOnlyWhenNothingRuns) {
    std::atomic<int> ran{0};
    std::atomic<int> accepted{0};
    std::thread producer;
    {
        ThreadPool pool("Few", 2, 2);
        EXPECT_TRUE(pool.waitIdleFor(10s));
        std::promise<void> gate;
        const auto open = gate.get_future().share();
        std::atomic<int> inside{0};
        for (int i = 0; i < 2; ++i) {
            pool.post([&, open] {
                ++inside;
                open.wait();
                // Beyond the limit: the pool's own thread could wait for itself.
                for (int more = 0; more < 3; ++more) pool.post([&ran] { ++ran; });
                throw std::runtime_error("logged");
            });
        }
        EXPECT_TRUE(eventually([&] { return inside == 2; }));
        producer = std::thread([&] {
            for (int i = 0; i < 3; ++i, ++accepted) pool.post([&ran] { ++ran; });
        });
        EXPECT_TRUE(eventually([&] { return accepted == 2; }));
        EXPECT_FALSE(pool.waitIdleFor(10ms));
        EXPECT_EQ(accepted, 2);
        pool.postNotice([&ran] { ++ran; });
        gate.set_value();
        producer.join();
        EXPECT_TRUE(pool.waitIdleFor(10s));
        EXPECT_EQ(ran, 10);
        pool.post([&ran] { ++ran; });
    }
    EXPECT_EQ(ran, 11) << "the end runs what is queued";
}

}  // namespace
}  // namespace kelm
