#include "execution/QueueLedger.h"

#include "fakes/TestPch.h"

namespace kelm {

// A task's second result may have been its first one: which of the two is left is in doubt.
TEST(QueueLedgerTest, OnlyNewQueuesHelpWhereAllThatIsLeftIsInDoubt) {
    const auto ledger = std::make_shared<QueueLedger>(2);
    const auto feed = [&](unsigned long taskId) {
        EXPECT_EQ(ledger->getNextStep(), QueueLedger::NextStep::kWrite);
        ledger->addInput(taskId);
        EXPECT_EQ(ledger->getNextStep(), QueueLedger::NextStep::kQueueInference);
        ledger->addInference();
    };
    const auto failReading = [&](unsigned long taskId) {
        feed(taskId);
        QueueLedger::Turn(ledger, taskId).addFailedReading();
    };
    failReading(1);
    feed(1);
    EXPECT_EQ(QueueLedger::Turn(ledger, 1).addResult(1), QueueLedger::Outcome::kOwn);
    failReading(2);
    EXPECT_EQ(ledger->getNextStep(), QueueLedger::NextStep::kRenew);
}

}  // namespace kelm
