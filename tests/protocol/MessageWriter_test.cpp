#include "protocol/src/MessageWriter.h"

#include "fakes/Eventually.h"
#include "fakes/SocketChannel.h"
#include "protocol/src/KelmProtocol.h"

namespace kelm {
namespace {

class MessageWriterTest : public testing::Test {
 protected:
    static MessagePtr makeAnswer(uint64_t number) {
        MessagePtr message(kelmAllocMessage(KELM_MESSAGE_INFER_TASK_RSP));
        reinterpret_cast<KelmMsgRsp*>(message.get())->reqSeqNo = number;
        return message;
    }
    std::vector<uint64_t> receiveNumbers(size_t count) const {
        std::vector<uint64_t> numbers;
        for (size_t i = 0; i < count; ++i) {
            const std::string bytes = peer.receive(sizeof(KelmMsgRspInferTask));
            numbers.push_back(reinterpret_cast<const KelmMsgRsp*>(bytes.data())->reqSeqNo);
        }
        return numbers;
    }

    int writeAlone(KelmMsgBase* message) const {
        return kelmSendMessage(connection->getSimulateFD(), message);
    }

    SocketChannel channel;
    RawPeer peer{channel.path};
    std::shared_ptr<IPC::ConnectionUDS> connection = channel.accept();
};

TEST_F(MessageWriterTest, RecordsLeaveTogetherAndInOrder) {
    MessageWriter writer(connection->getSimulateFD());
    for (uint64_t number = 0; number < 5; ++number) {
        ASSERT_EQ(0, writer.append(makeAnswer(number).get()));
    }
    EXPECT_EQ(0, peer.pending());
    EXPECT_FALSE(writer.empty());
    EXPECT_EQ(0, writer.flush());
    EXPECT_THAT(receiveNumbers(5), testing::ElementsAre(0, 1, 2, 3, 4));
    for (uint64_t number = 0; number < 31; ++number) {
        ASSERT_EQ(0, writer.append(makeAnswer(number).get()));
    }
    EXPECT_EQ(29U * sizeof(KelmMsgRspInferTask),
              static_cast<size_t>(peer.pending()));  // 16 KB full
}

TEST_F(MessageWriterTest, WhatCannotWaitFollowsWhatWaited) {
    MessageWriter writer(connection->getSimulateFD());
    ASSERT_EQ(0, writer.append(makeAnswer(1).get()));
    const MessagePtr report(kelmAllocMessage(KELM_MESSAGE_QUERY_STATUS_RSP));
    ASSERT_EQ(0, writer.append(report.get()));
    EXPECT_TRUE(writer.empty());
    EXPECT_THAT(receiveNumbers(1), testing::ElementsAre(1));
    EXPECT_EQ(report->size, peer.receive(report->size).size());

    ASSERT_EQ(0, writer.append(makeAnswer(2).get()));
    const UniqueFd file = makeFile();
    MessagePtr request(kelmAllocMessage(KELM_MESSAGE_TEST_SEND_FD_REQ));
    reinterpret_cast<KelmMsgReqTestSendFd*>(request.get())->testFd = file.get();
    ASSERT_EQ(0, writer.append(request.get()));
    EXPECT_THAT(receiveNumbers(1), testing::ElementsAre(2));
    EXPECT_EQ(request->size + 4, peer.receive(request->size + 4).size());
}

// The socket is full in the middle of the first one's fourth report when the other one comes, and
// has room again before the first one has noticed.
TEST_F(MessageWriterTest, RecordsOfSeveralWritersStayWhole) {
    MessageWriter writer(connection->getSimulateFD());
    const auto alone = [&](KelmMsgBase* message) { return writeAlone(message); };
    const auto gathered = [&](KelmMsgBase* message) {
        return writer.append(message) == 0 ? writer.flush() : -1;
    };
    const MessagePtr report(kelmAllocMessage(KELM_MESSAGE_QUERY_STATUS_RSP));
    constexpr int kReports = 5;
    using Send = std::function<int(KelmMsgBase*)>;
    for (const auto& [first, other] : {std::pair<Send, Send>{alone, gathered}, {gathered, alone}}) {
        const size_t small = sizeof(KelmMsgRspInferTask);
        for (int i = 0; i < 20; ++i) ASSERT_EQ(0, writeAlone(makeAnswer(1).get()));
        std::thread reports([&, send = first] {
            for (int i = 0; i < kReports; ++i) EXPECT_EQ(0, send(report.get()));
        });
        ASSERT_TRUE(eventually(
            [&] { return static_cast<size_t>(peer.pending()) > 20 * small + 3 * report->size; }));
        (void)peer.receive(20 * small + report->size);
        std::thread answer([&, send = other] { EXPECT_EQ(0, send(makeAnswer(2).get())); });
        const int before = peer.pending();
        (void)eventually([&] { return peer.pending() > before; }, std::chrono::milliseconds(100));
        size_t expected = small + (kReports - 1) * report->size;
        while (expected > 0) {
            const std::string head = peer.receive(sizeof(KelmMsgBase));
            const auto& base = *reinterpret_cast<const KelmMsgBase*>(head.data());
            EXPECT_EQ(base.size, base.type < kMessageTypes ? KelmMessageSize[base.type] : 0)
                << expected << " before the end";
            if (testing::Test::HasFailure()) break;
            expected -= peer.receive(base.size - sizeof(base)).size() + sizeof(base);
        }
        if (expected > 0) connection->shutdown();
        reports.join();
        answer.join();
    }
}

TEST_F(MessageWriterTest, FailedWriteDropsAndKeepsTheNumber) {
    MessageWriter writer(connection->getSimulateFD());
    const int number = connection->getSimulateFD();
    ASSERT_EQ(0, writer.append(makeAnswer(1).get()));
    peer.hangUp();
    EXPECT_EQ(-1, writer.flush());
    EXPECT_EQ(0, writer.flush());
    ASSERT_EQ(0, writer.append(makeAnswer(2).get()));
    // Another peer must not get the number, and with it the record that waits here.
    IPC::ConnectionBase::close(number);
    connection.reset();
    IPC::PollEvent event;
    EXPECT_FALSE(channel.poller->wait(&event, 0));
    const RawPeer other(channel.path);
    EXPECT_NE(number, channel.accept()->getSimulateFD());
    EXPECT_EQ(-1, writer.flush());
    EXPECT_EQ(0, other.pending());
}

}  // namespace
}  // namespace kelm
