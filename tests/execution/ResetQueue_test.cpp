#include "execution/ResetQueue.h"

#include "fakes/Eventually.h"
#include "fakes/FakeResultSink.h"
#include "fakes/TestPch.h"
#include "fakes/TestRequest.h"
#include "protocol/src/KelmError.h"
#include "utils/Port.h"
#include "utils/ThreadPool.h"

namespace kelm {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// The nth reset, from 0, waits until the test lets it go on, and gives n.
class ResetQueueTest : public testing::Test {
 protected:
    void make(std::chrono::milliseconds patience) {
        const auto reset = [this] {
            const int number = m_begun++;
            m_go.wait();
            return number;
        };
        m_queue.emplace("device(a)", m_pool, reset, patience);
    }
    ~ResetQueueTest() override { m_queue->close(); }
    void letGo() { m_release.set_value(); }
    bool hasBegun(int number) {
        return eventually([&] { return m_begun == number; });
    }
    std::vector<int> results() {
        std::vector<int> results;
        for (const auto& reset : m_sink.resets()) results.push_back(reset.error);
        return results;
    }
    bool isAnswered(size_t number) {
        return eventually([&] { return m_sink.resets().size() == number; });
    }

    static constexpr std::chrono::hours kLong{1};
    static constexpr std::chrono::milliseconds kNone{-1};  // any time is longer
    FakeResultSink m_sink;
    ScopedPort<ResultSink> m_port{m_sink};
    std::promise<void> m_release;
    std::shared_future<void> m_go = m_release.get_future().share();
    std::atomic<int> m_begun{0};
    std::optional<ResetQueue> m_queue;
    ThreadPool m_pool{"Resets", 1, 10};
};

TEST_F(ResetQueueTest, AllThatWaitAreDoneInOrderAndOtherJobsBetweenThem) {
    make(kLong);
    for (int reset = 0; reset < 3; ++reset) m_queue->enqueue(makeResetRequest(0, reset));
    ASSERT_TRUE(hasBegun(1));
    auto seen = m_pool.enqueue([this] { return m_begun.load(); });
    letGo();
    EXPECT_EQ(seen.get(), 1) << "resets before a job that came during the first";
    EXPECT_TRUE(isAnswered(3));
    EXPECT_THAT(results(), ElementsAre(0, 1, 2));
    EXPECT_EQ(m_sink.resets().back().socket, 2);
}

TEST_F(ResetQueueTest, RequestIsRefusedOnlyBehindALongReset) {
    make(kNone);
    m_queue->enqueue(makeResetRequest());
    ASSERT_TRUE(hasBegun(1));
    m_queue->enqueue(makeResetRequest());
    ASSERT_THAT(results(), ElementsAre(KELM_ERROR_INVALID_DEVICE));
    letGo();
    ASSERT_TRUE(isAnswered(2));
    m_queue->enqueue(makeResetRequest());
    EXPECT_TRUE(isAnswered(3));
    EXPECT_THAT(results(), ElementsAre(KELM_ERROR_INVALID_DEVICE, 0, 1));
}

TEST_F(ResetQueueTest, FloodIsRefusedAtTheBoundOnMemoryAndCloseAnswersWhatWaits) {
    make(kLong);
    m_queue->enqueue(makeResetRequest());
    ASSERT_TRUE(hasBegun(1));
    for (size_t i = 0; i < ResetQueue::kMaxWaiting; ++i) m_queue->enqueue(makeResetRequest());
    EXPECT_THAT(results(), IsEmpty());
    m_queue->enqueue(makeResetRequest());
    EXPECT_THAT(results(), ElementsAre(KELM_ERROR_INVALID_DEVICE));
    m_queue->close();
    EXPECT_THAT(results(), SizeIs(1 + ResetQueue::kMaxWaiting));
    m_queue->enqueue(makeResetRequest());
    EXPECT_THAT(results(), SizeIs(2 + ResetQueue::kMaxWaiting));
    letGo();
    EXPECT_TRUE(isAnswered(3 + ResetQueue::kMaxWaiting));
    EXPECT_EQ(m_begun, 1);
}

}  // namespace
}  // namespace kelm
