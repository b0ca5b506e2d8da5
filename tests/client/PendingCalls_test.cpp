#include "client/PendingCalls.h"

#include "fakes/Eventually.h"
#include "protocol/src/KelmError.h"

namespace kelm::client {
namespace {

using ::testing::ElementsAre;
using Clock = PendingCalls::Clock;

constexpr std::chrono::hours kNever{1};

class PendingCallsTest : public ::testing::Test {
 protected:
    bool addInfer(uint64_t sequence, Clock::duration time = kNever) {
        InferRequest request;
        request.cookie0 = 100 + sequence;
        const auto end = [this](const InferResult& result) {
            MutexLock lock(m_mutex);
            m_ends.push_back(result);
        };
        return m_calls.addInfer(sequence, Clock::now() + time, request, end, {});
    }
    // How calls have ended, in order.
    std::vector<InferResult> ends() {
        MutexLock lock(m_mutex);
        return m_ends;
    }
    std::vector<ErrorKind> kinds() {
        std::vector<ErrorKind> kinds;
        for (const InferResult& end : ends()) kinds.push_back(end.error.kind());
        return kinds;
    }

    Mutex m_mutex;
    std::vector<InferResult> m_ends GUARDED_BY(m_mutex);
    std::atomic<int> m_overdue{0};
    PendingCalls m_calls{[this] { ++m_overdue; }};
};

TEST_F(PendingCallsTest, InferenceEndsOnceWithItsError) {
    const Error lost = Error::connectionLost();
    const struct {
        const char* what;
        std::function<void(PendingCalls&)> events;
        ErrorKind kind;
    } rows[] = {
        {"result twice",
         [](PendingCalls& calls) {
             calls.acceptInfer(1, KELM_OK, 7);
             calls.finishInfer(1, KELM_OK, 7);
             calls.finishInfer(1, KELM_ERROR_DEVICE_FAILED, 7);
         },
         ErrorKind::kNone},
        {"refused, then lost",
         [&](PendingCalls& calls) {
             calls.acceptInfer(1, KELM_ERROR_TOO_MANY_TASK, 0);
             calls.fail(1, lost);
         },
         ErrorKind::kService},
        {"canceled, then its result",
         [](PendingCalls& calls) {
             calls.acceptInfer(1, KELM_OK, 7);
             calls.cancelInfer(7);
             calls.finishInfer(1, KELM_OK, 7);
         },
         ErrorKind::kCanceled},
        {"task failed",
         [](PendingCalls& calls) {
             calls.cancelInfer(7);  // of another task, or of none yet
             calls.finishInfer(2, KELM_OK, 8);
             calls.finishInfer(1, KELM_ERROR_DEVICE_FAILED, 7);
         },
         ErrorKind::kService},
    };
    size_t ended = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_TRUE(addInfer(1));
        row.events(m_calls);
        ASSERT_EQ(kinds().size(), ++ended);
        EXPECT_EQ(ends().back().error.kind(), row.kind);
        EXPECT_EQ(ends().back().cookie0, 101U);
    }
}

TEST_F(PendingCallsTest, LaterCallWithAnEarlierDeadlineEndsInTime) {
    ASSERT_TRUE(addInfer(1));
    ASSERT_TRUE(addInfer(2, std::chrono::milliseconds(20)));
    ASSERT_TRUE(eventually([this] { return m_overdue == 1; }));
    EXPECT_THAT(kinds(), ElementsAre(ErrorKind::kTimeout));
    EXPECT_EQ(ends().back().cookie0, 102U);
    m_calls.finishInfer(2, KELM_OK, 1);  // too late
    m_calls.finishInfer(1, KELM_OK, 2);
    EXPECT_THAT(kinds(), ElementsAre(ErrorKind::kTimeout, ErrorKind::kNone));
}

TEST_F(PendingCallsTest, ClosedTableEndsItsCallsAndTakesNoMore) {
    ASSERT_TRUE(addInfer(1));
    ErrorKind kind = ErrorKind::kNone;
    ASSERT_TRUE(m_calls.addCall(2, "a call", Clock::now() + kNever,
                                [&](const MessagePtr&, const Error& end) { kind = end.kind(); }));
    m_calls.closeAll(Error::connectionLost());
    EXPECT_THAT(kinds(), ElementsAre(ErrorKind::kConnectionLost));
    EXPECT_EQ(kind, ErrorKind::kConnectionLost);
    EXPECT_FALSE(addInfer(3));
    m_calls.closeAll(Error::connectionLost());
    EXPECT_EQ(kinds().size(), 1U);
}

TEST_F(PendingCallsTest, CallbackMaySubmit) {
    const auto submitNext = [this](const InferResult&) { EXPECT_TRUE(addInfer(2)); };
    ASSERT_TRUE(m_calls.addInfer(1, Clock::now() + kNever, {}, submitNext, {}));
    m_calls.finishInfer(1, KELM_OK, 1);
    m_calls.finishInfer(2, KELM_OK, 2);
    EXPECT_THAT(kinds(), ElementsAre(ErrorKind::kNone));
}

TEST_F(PendingCallsTest, OfRacingEndsOfOneCallOneCounts) {
    constexpr uint64_t kCalls = 2000;
    for (uint64_t i = 1; i <= kCalls; ++i) {
        ASSERT_TRUE(addInfer(i, i % 2 == 0 ? std::chrono::milliseconds(0) : kNever));
    }
    const auto forAll = [](auto operation) {
        return std::async(std::launch::async, [operation] {
            for (uint64_t i = 1; i <= kCalls; ++i) operation(i);
        });
    };
    {
        const auto accepts = forAll([this](uint64_t i) { m_calls.acceptInfer(i, KELM_OK, i); });
        const auto finishes = forAll([this](uint64_t i) { m_calls.finishInfer(i, KELM_OK, i); });
        const auto cancels = forAll([this](uint64_t i) { m_calls.cancelInfer(i); });
        const auto fails = forAll([this](uint64_t i) { m_calls.fail(i, Error::canceled()); });
    }
    EXPECT_TRUE(eventually([this] { return kinds().size() == kCalls; }));
    m_calls.closeAll(Error::connectionLost());
    EXPECT_EQ(kinds().size(), kCalls);
}

}  // namespace
}  // namespace kelm::client
