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

TEST_F(MessageWriterTest, RecordsOfSeveralWritersStayWhole) {
    constexpr int kRounds = 400;
    const UniqueFd file = makeFile();
    const auto sendAlone = [&](KelmMsgType type) {
        const MessagePtr message(kelmAllocMessage(type));
        if (type == KELM_MESSAGE_TEST_SEND_FD_REQ) {
            reinterpret_cast<KelmMsgReqTestSendFd*>(message.get())->testFd = file.get();
        }
        for (int i = 0; i < kRounds && writeAlone(message.get()) == 0; ++i) continue;
    };
    std::thread writers[] = {
        std::thread([&] { sendAlone(KELM_MESSAGE_QUERY_STATUS_RSP); }),  // takes several calls
        std::thread([&] { sendAlone(KELM_MESSAGE_TEST_SEND_FD_REQ); }), std::thread([&] {
            MessageWriter writer(connection->getSimulateFD());
            for (int i = 0; i < kRounds && writer.append(makeAnswer(1).get()) == 0; ++i) continue;
            (void)writer.flush();
        })};
    int whole = 0;
    for (; whole < 3 * kRounds; ++whole) {
        const std::string head = peer.receive(sizeof(KelmMsgBase));
        const auto& base = *reinterpret_cast<const KelmMsgBase*>(head.data());
        if (base.type >= KELM_MESSAGE_END || base.size != KelmMessageSize[base.type]) break;
        const bool hasDescriptor = base.type == KELM_MESSAGE_TEST_SEND_FD_REQ;
        (void)peer.receive(base.size - sizeof(base) + (hasDescriptor ? sizeof(int) : 0));
    }
    EXPECT_EQ(whole, 3 * kRounds) << "then one was torn";
    peer.hangUp();
    for (std::thread& writer : writers) writer.join();
}

TEST_F(MessageWriterTest, ShutdownEndsTheWriterAndThoseBehindIt) {
    std::vector<std::thread> writers;
    for (int i = 0; i < 3; ++i) {
        writers.emplace_back([&] {
            const MessagePtr report(kelmAllocMessage(KELM_MESSAGE_QUERY_STATUS_RSP));
            while (writeAlone(report.get()) == 0) continue;
        });
    }
    EXPECT_TRUE(eventually([&] { return peer.pending() > 100000; }));
    connection->shutdown();
    for (std::thread& writer : writers) writer.join();
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
    EXPECT_EQ(0, MessageWriter(1000).flush());
    EXPECT_EQ(0, MessageWriter(1000).append(makeAnswer(1).get()));
}

}  // namespace
}  // namespace kelm
