#include "execution/ResetQueue.h"

#include "fakes/FakeResultSink.h"
#include "fakes/TestRequest.h"
#include "protocol/src/KelmError.h"
#include "utils/Port.h"
#include "utils/SerialPool.h"

namespace kelm {
namespace {

// The nth reset, from 0, waits until the test lets it go on, and gives n.
class ResetQueueTest : public testing::Test {
 protected:
    // With so many requests, of which the first is under way.
    void start(size_t requests, std::chrono::milliseconds patience = 1h) {
        const auto reset = [this] {
            const int number = m_begun++;
            m_go.wait();
            return number;
        };
        m_queue.emplace("device(a)", m_pool, reset, patience);
        for (size_t i = 0; i < requests; ++i) enqueue(static_cast<int>(i));
        EXPECT_TRUE(eventually([&] { return m_begun == 1; }));
    }
    ~ResetQueueTest() override { m_queue->close(); }
    void enqueue(int socket = 0) { m_queue->enqueue(makeResetRequest(0, socket)); }
    std::vector<int> results() {
        std::vector<int> results;
        for (const auto& reset : m_sink.resets()) results.push_back(reset.error);
        return results;
    }
    bool isAnswered(size_t number) {
        return eventually([&] { return m_sink.resets().size() == number; });
    }

    FakeResultSink m_sink;
    ScopedPort<ResultSink> m_port{m_sink};
    std::promise<void> m_release;
    std::shared_future<void> m_go = m_release.get_future().share();
    std::atomic<int> m_begun{0};
    std::optional<ResetQueue> m_queue;
    SerialPool m_pool{"Resets", 10};
};

TEST_F(ResetQueueTest, AllThatWaitAreDoneInOrderAndOtherJobsBetweenThem) {
    start(3);
    auto seen = m_pool.enqueue([this] { return m_begun.load(); });
    m_release.set_value();
    EXPECT_EQ(seen.get(), 1) << "resets before a job that came during the first";
    EXPECT_TRUE(isAnswered(3));
    EXPECT_THAT(results(), ElementsAre(0, 1, 2));
    EXPECT_EQ(m_sink.resets().back().socket, 2);
}

TEST_F(ResetQueueTest, RequestIsRefusedOnlyBehindALongReset) {
    start(1, std::chrono::milliseconds(-1));  // any time is longer
    enqueue();
    ASSERT_THAT(results(), ElementsAre(KELM_ERROR_INVALID_DEVICE));
    m_release.set_value();
    ASSERT_TRUE(isAnswered(2));
    enqueue();
    EXPECT_TRUE(isAnswered(3));
    EXPECT_THAT(results(), ElementsAre(KELM_ERROR_INVALID_DEVICE, 0, 1));
}

TEST_F(ResetQueueTest, FloodIsRefusedAtTheBoundOnMemoryAndCloseAnswersWhatWaits) {
    start(ResetQueue::kMaxWaiting);
    enqueue();
    EXPECT_THAT(results(), IsEmpty());
    enqueue();
    EXPECT_THAT(results(), ElementsAre(KELM_ERROR_INVALID_DEVICE));
    m_queue->close();
    EXPECT_THAT(results(), SizeIs(1 + ResetQueue::kMaxWaiting));
    enqueue();
    EXPECT_THAT(results(), SizeIs(2 + ResetQueue::kMaxWaiting));
    m_release.set_value();
    EXPECT_TRUE(isAnswered(3 + ResetQueue::kMaxWaiting));
    EXPECT_EQ(m_begun, 1);
}

}  // namespace
}  // namespace kelm
