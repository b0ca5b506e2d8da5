#include "client/PendingCalls.h"

#include "client/PreparedInfer.h"
#include "protocol/src/KelmError.h"

namespace kelm::client {
namespace {

using Clock = PendingCalls::Clock;

constexpr std::chrono::hours kNever{1};

class PendingCallsTest : public ::testing::Test {
 protected:
    bool addInfer(uint64_t sequence, Clock::duration time = kNever) {
        KelmMsgReqInferTask message{};
        message.head.reqSeqNo = sequence;
        message.taskCookie0 = 100 + sequence;
        const auto end = [this, sequence](const InferResult& result) {
            EXPECT_EQ(result.cookie0, 100 + sequence);
            MutexLock lock(m_mutex);
            m_kinds.push_back(result.error.kind());
        };
        return m_calls.addInfer(Clock::now() + time, message, nullptr, end, {}, false);
    }
    // How calls have ended, in order.
    std::vector<ErrorKind> kinds() {
        MutexLock lock(m_mutex);
        return m_kinds;
    }

    Mutex m_mutex;
    std::vector<ErrorKind> m_kinds GUARDED_BY(m_mutex);
    std::atomic<int> m_overdue{0};
    PendingCalls m_calls{[this] {
        ++m_overdue;
        return Clock::time_point::max();
    }};
};

TEST_F(PendingCallsTest, InferenceEndsOnceWithItsError) {
    const std::pair<ErrorKind, void (*)(PendingCalls&)> rows[] = {
        {ErrorKind::kNone,  // result twice
         [](PendingCalls& calls) {
             calls.acceptInfer(1, KELM_OK, 7);
             calls.finishInfer(1, KELM_OK, 7);
             calls.finishInfer(1, KELM_ERROR_DEVICE_FAILED, 7);
         }},
        {ErrorKind::kService,  // refused, then lost
         [](PendingCalls& calls) {
             calls.acceptInfer(1, KELM_ERROR_TOO_MANY_TASK, 0);
             calls.fail(1, Error::connectionLost());
         }},
        {ErrorKind::kCanceled,  // then its result
         [](PendingCalls& calls) {
             calls.acceptInfer(1, KELM_OK, 7);
             calls.endInfer(7, Error::canceled());
             calls.finishInfer(1, KELM_OK, 7);
         }},
        {ErrorKind::kSystem,  // the answer to something else, then its result
         [](PendingCalls& calls) {
             calls.finishCall(1, nullptr);
             calls.finishInfer(1, KELM_OK, 7);
         }},
        {ErrorKind::kService,  // failed
         [](PendingCalls& calls) {
             calls.endInfer(7, Error::canceled());  // of another task, or of none yet
             calls.finishInfer(2, KELM_OK, 8);
             calls.finishInfer(1, KELM_ERROR_DEVICE_FAILED, 7);
         }},
    };
    for (const auto& [kind, events] : rows) {
        SCOPED_TRACE(static_cast<int>(kind));
        const size_t before = kinds().size();
        ASSERT_TRUE(addInfer(1));
        events(m_calls);
        ASSERT_EQ(kinds().size(), before + 1);
        EXPECT_EQ(kinds().back(), kind);
    }
}

TEST_F(PendingCallsTest, CallEndsWithTheAnswerToAnInference) {
    void (*const rows[])(PendingCalls&) = {
        [](PendingCalls& calls) { calls.acceptInfer(1, KELM_OK, 7); },
        [](PendingCalls& calls) { calls.acceptInfer(1, KELM_ERROR_TOO_MANY_TASK, 7); },
        [](PendingCalls& calls) { calls.finishInfer(1, KELM_OK, 7); },
    };
    for (const auto answer : rows) {
        std::vector<ErrorKind> kinds;
        const auto reply = [&](const MessagePtr&, const Error& end) {
            kinds.push_back(end.kind());
        };
        ASSERT_TRUE(m_calls.addCall(1, "a call", Clock::now() + kNever, reply));
        answer(m_calls);
        EXPECT_THAT(kinds, ElementsAre(ErrorKind::kSystem));
    }
}

TEST_F(PendingCallsTest, LaterCallWithAnEarlierDeadlineEndsInTime) {
    ASSERT_TRUE(addInfer(1));
    ASSERT_TRUE(addInfer(2, 20ms));
    ASSERT_TRUE(eventually([this] { return m_overdue == 1; }));
    EXPECT_THAT(kinds(), ElementsAre(ErrorKind::kTimeout));
    m_calls.finishInfer(2, KELM_OK, 1);  // too late
    m_calls.finishInfer(1, KELM_OK, 2);
    EXPECT_THAT(kinds(), ElementsAre(ErrorKind::kTimeout, ErrorKind::kNone));
}

TEST_F(PendingCallsTest, ClosedTableEndsItsCallsAndTakesNoMore) {
    ASSERT_TRUE(addInfer(1));
    ErrorKind kind = ErrorKind::kNone;
    ASSERT_TRUE(m_calls.addCall(2, "a call", Clock::now() + kNever,
                                [&](const MessagePtr&, const Error& end) { kind = end.kind(); }));
    for (int i = 0; i < 2; ++i) m_calls.closeAll(Error::connectionLost());
    EXPECT_THAT(kinds(), ElementsAre(ErrorKind::kConnectionLost));
    EXPECT_EQ(kind, ErrorKind::kConnectionLost);
    EXPECT_FALSE(addInfer(3));
}

TEST_F(PendingCallsTest, CallbackMaySubmitWithTheSameSlot) {
    TensorPool pool(1, 1);
    const InferRequest request{.output = pool.acquire().value()->outputTensor()};
    const auto submit = [&](uint64_t sequence, const InferCallback& end) {
        auto infer = PreparedInfer::make(request);
        if (!infer) return infer.error();
        auto& [message, claim] = infer.value();
        message.head.reqSeqNo = sequence;
        EXPECT_TRUE(
            m_calls.addInfer(Clock::now() + kNever, message, std::move(claim), end, {}, false));
        return Error();
    };
    Error second(ErrorKind::kTimeout, 0, "");
    const auto submitNext = [&](const InferResult&) { second = submit(2, {}); };
    EXPECT_FALSE(submit(1, submitNext));
    EXPECT_EQ(submit(3, submitNext).kind(), ErrorKind::kBusy);
    m_calls.finishInfer(1, KELM_OK, 1);
    EXPECT_FALSE(second) << second.text();
}

}  // namespace
}  // namespace kelm::client
