#include "client/PendingCalls.h"

#include "fakes/Eventually.h"
#include "protocol/src/KelmError.h"

namespace kelm::client {
namespace {

using ::testing::ElementsAre;
using Clock = PendingCalls::Clock;

constexpr std::chrono::hours kNever{1};

// How calls have ended, in order.
class Ends {
 public:
    InferCallback callback() {
        return [this](const InferResult& result) { add(result); };
    }
    std::vector<ErrorKind> kinds() {
        MutexLock lock(m_mutex);
        return m_kinds;
    }
    InferResult last() {
        MutexLock lock(m_mutex);
        return m_last;
    }

 private:
    void add(const InferResult& result) {
        MutexLock lock(m_mutex);
        m_kinds.push_back(result.error.kind());
        m_last = result;
    }

    Mutex m_mutex;
    std::vector<ErrorKind> m_kinds GUARDED_BY(m_mutex);
    InferResult m_last GUARDED_BY(m_mutex);
};

class PendingCallsTest : public ::testing::Test {
 protected:
    bool addInfer(uint64_t sequence, Clock::duration time = kNever) {
        InferRequest request;
        request.cookie0 = 100 + sequence;
        return m_calls.addInfer(sequence, Clock::now() + time, request, m_ends.callback(), {});
    }

    Ends m_ends;
    std::atomic<int> m_overdue{0};
    PendingCalls m_calls{[this] { ++m_overdue; }};
};

TEST_F(PendingCallsTest, InferenceEndsTwiceOrWithTheWrongError) {
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
        ASSERT_EQ(m_ends.kinds().size(), ++ended);
        EXPECT_EQ(m_ends.last().error.kind(), row.kind);
        EXPECT_EQ(m_ends.last().cookie0, 101U);
    }
}

TEST_F(PendingCallsTest, LaterCallWithAnEarlierDeadlineIsSleptOver) {
    ASSERT_TRUE(addInfer(1));
    ASSERT_TRUE(addInfer(2, std::chrono::milliseconds(20)));
    ASSERT_TRUE(eventually([this] { return m_overdue == 1; }));
    EXPECT_THAT(m_ends.kinds(), ElementsAre(ErrorKind::kTimeout));
    EXPECT_EQ(m_ends.last().cookie0, 102U);
    m_calls.finishInfer(2, KELM_OK, 1);  // too late
    m_calls.finishInfer(1, KELM_OK, 2);
    EXPECT_THAT(m_ends.kinds(), ElementsAre(ErrorKind::kTimeout, ErrorKind::kNone));
}

TEST_F(PendingCallsTest, ClosedTableTakesCallsThatNobodyEnds) {
    ASSERT_TRUE(addInfer(1));
    ErrorKind kind = ErrorKind::kNone;
    ASSERT_TRUE(m_calls.addCall(2, "a call", Clock::now() + kNever,
                                [&](const MessagePtr&, const Error& end) { kind = end.kind(); }));
    m_calls.closeAll(Error::connectionLost());
    EXPECT_THAT(m_ends.kinds(), ElementsAre(ErrorKind::kConnectionLost));
    EXPECT_EQ(kind, ErrorKind::kConnectionLost);
    EXPECT_FALSE(addInfer(3));
    m_calls.closeAll(Error::connectionLost());
    EXPECT_EQ(m_ends.kinds().size(), 1U);
}

TEST_F(PendingCallsTest, CallbackThatSubmitsMeetsAHeldLock) {
    const auto submitNext = [this](const InferResult&) { EXPECT_TRUE(addInfer(2)); };
    ASSERT_TRUE(m_calls.addInfer(1, Clock::now() + kNever, {}, submitNext, {}));
    m_calls.finishInfer(1, KELM_OK, 1);
    m_calls.finishInfer(2, KELM_OK, 2);
    EXPECT_THAT(m_ends.kinds(), ElementsAre(ErrorKind::kNone));
}

TEST_F(PendingCallsTest, RacingEndsOfOneCallAllCount) {
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
    EXPECT_TRUE(eventually([this] { return m_ends.kinds().size() == kCalls; }));
    m_calls.closeAll(Error::connectionLost());
    EXPECT_EQ(m_ends.kinds().size(), kCalls);
}

}  // namespace
}  // namespace kelm::client
