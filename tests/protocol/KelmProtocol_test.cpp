#include "protocol/src/KelmProtocol.h"

#include "fakes/SocketChannel.h"
#include "protocol/src/MessageAssembler.h"
#include "protocol/src/MessageWriter.h"

namespace kelm {
namespace {

template <class Record>
Record& as(const MessagePtr& message) {
    return *reinterpret_cast<Record*>(message.get());
}

class KelmProtocolTest : public testing::Test {
 protected:
    KelmProtocolTest() {
        EXPECT_TRUE(client->connect(channel.path));
        service = channel.accept();
    }
    int send(const MessagePtr& message) {
        return kelmSendMessage(client->getSimulateFD(), message.get());
    }
    MessagePtr receive(PreparedBuffers prepared = {}) {
        return MessagePtr(kelmReceiveMessage(service->getSimulateFD(), prepared));
    }
    MessagePtr makeGraphRequest(const std::string& binary) {
        MessagePtr message(kelmAllocMessage(KELM_MESSAGE_CREATE_GRAPH_REQ));
        as<KelmMsgReqCreateGraph>(message).graphData = reinterpret_cast<uint64_t>(binary.data());
        as<KelmMsgReqCreateGraph>(message).graphDataSize = static_cast<uint32_t>(binary.size());
        return message;
    }
    MessagePtr makeInferRequest(int input, int output, int aux) {
        MessagePtr message(kelmAllocMessage(KELM_MESSAGE_INFER_TASK_REQ));
        auto& request = as<KelmMsgReqInferTask>(message);
        request.inputBuffer.fd = input;
        request.outputBuffer.fd = output;
        request.auxBuffer.fd = aux;
        request.auxBuffer.shareMemory = request.auxBuffer.buffer = 0xdead;
        return message;
    }

    // A plain socket takes the client's place.
    RawPeer connectRaw() {
        RawPeer peer{channel.path};
        service = channel.accept();
        return peer;
    }
    static std::string graphOf(const KelmMsgReqCreateGraph& request) {
        return {reinterpret_cast<const char*>(request.graphData), request.graphDataSize};
    }

    SocketChannel channel;
    std::shared_ptr<IPC::ConnectionUDS> client = std::make_shared<IPC::ConnectionUDS>(nullptr);
    std::shared_ptr<IPC::ConnectionUDS> service;
};

TEST_F(KelmProtocolTest, DescriptorsReachTheBufferOfTheirRole) {
    const UniqueFd input = makeFile();
    const UniqueFd output = makeFile();
    const UniqueFd aux = makeFile();
    const int choices[][3] = {{input.get(), output.get(), aux.get()},
                              {input.get(), 0, aux.get()},
                              {-1, output.get(), 0},
                              {0, 0, -7}};
    for (const auto& [in, out, extra] : choices) {
        SCOPED_TRACE(testing::Message() << in << " " << out << " " << extra);
        const size_t before = countDescriptors();
        const MessagePtr request = makeInferRequest(in, out, extra);
        ASSERT_EQ(0, send(request));
        ASSERT_EQ(0, send(request));  // again: no descriptor twice
        for (const bool taken : {true, false}) {
            const MessagePtr received = receive();
            ASSERT_TRUE(received);
            auto& record = as<KelmMsgReqInferTask>(received);
            EXPECT_EQ(0U, record.auxBuffer.shareMemory);
            EXPECT_EQ(0U, record.auxBuffer.buffer);
            if (!taken) continue;  // closed with the message
            KelmBuffer buffers[3];
            takeTaskBuffers(record, buffers[0], buffers[1], buffers[2]);
            for (const auto& [sent, taker] : {std::pair{in, 0}, {out, 1}, {extra, 2}}) {
                const UniqueFd owned(buffers[taker].fd > 0 ? buffers[taker].fd : -1);
                EXPECT_EQ(sent > 0, isSameFile(sent, owned.get()));
            }
            for (const KelmBuffer* left :
                 {&record.inputBuffer, &record.outputBuffer, &record.auxBuffer}) {
                EXPECT_EQ(0, left->fd);
            }
        }
        EXPECT_EQ(before, countDescriptors());
    }
}

TEST_F(KelmProtocolTest, MessageIsWholeWithItsLastPieceAndNotBefore) {
    const std::string block(700000, 'g');
    const MessagePtr graph = makeGraphRequest(block);
    ASSERT_EQ(0, flatMessage(graph.get()));
    const UniqueFd file = makeFile();
    const MessagePtr infer = makeInferRequest(file.get(), file.get(), 0);
    ASSERT_EQ(0, flatMessage(infer.get()));
    const RawPeer peer = connectRaw();
    using State = MessageAssembler::State;
    MessageAssembler assembler;
    const auto sendPieces = [&](const char* bytes, size_t size, size_t piece) {
        for (size_t at = 0; at < size; at += piece) {
            ASSERT_EQ(State::kWaiting, assembler.receiveArrived(*service));
            peer.send(bytes + at, std::min(piece, size - at));
        }
    };
    for (const size_t piece : {size_t{1}, size_t{487}, size_t{100000}}) {
        SCOPED_TRACE(piece);
        sendPieces(reinterpret_cast<const char*>(infer.get()), infer->size, piece);
        for (int i = 0; i < 2; ++i) {
            ASSERT_EQ(State::kWaiting, assembler.receiveArrived(*service));
            peer.send("12");
            ASSERT_EQ(State::kWaiting, assembler.receiveArrived(*service));
            peer.sendFds("34", {file.get()});
        }
        ASSERT_EQ(State::kWhole, assembler.receiveArrived(*service));
        const MessagePtr first = assembler.take(service);
        EXPECT_TRUE(isSameFile(file.get(), as<KelmMsgReqInferTask>(first).outputBuffer.fd));
        EXPECT_FALSE(assembler.isInsideMessage());

        sendPieces(reinterpret_cast<const char*>(graph.get()), graph->size, piece);
        sendPieces(block.data(), block.size(), std::max<size_t>(piece, 1000));
        ASSERT_EQ(State::kWhole, assembler.receiveArrived(*service));
        const MessagePtr second = assembler.take(service);
        EXPECT_EQ(block, graphOf(as<KelmMsgReqCreateGraph>(second)));
    }
}

TEST_F(KelmProtocolTest, BlockGoesOnlyToBuffersThatThisSidePrepared) {
    std::vector<char> prepared(16, '.');
    std::vector<char> foreign(16, '.');
    const struct {
        const char* name;
        std::vector<char>* named;  // what the peer claims was prepared
        uint64_t claimedSize;
        size_t preparedSize;
        uint32_t type;
        bool received;
        bool inPlace;
    } rows[] = {{"own buffer", &prepared, 16, 16, kGraphBlockType, true, true},
                {"foreign address", &foreign, 16, 16, kGraphBlockType, true, false},
                {"other block type", &prepared, 16, 16, 3, true, false},
                {"claimed too small", &prepared, 5, 16, kGraphBlockType, false, false},
                {"claimed too large", &prepared, 16, 5, kGraphBlockType, true, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const PreparedBuffer list[] = {{prepared.data(), row.preparedSize}};
        const std::string block = "binary";
        const RawPeer peer = connectRaw();
        MessagePtr message = makeGraphRequest(block);
        ASSERT_EQ(0, flatMessage(message.get()));
        message->peerRecvNum = 1;
        message->peerRecvData[0] = reinterpret_cast<uint64_t>(row.named->data());
        message->peerRecvSize[0] = row.claimedSize;
        message->peerRecvType[0] = row.type;
        peer.send(message.get(), message->size);
        peer.send(block);
        const MessagePtr received = receive(list);
        ASSERT_EQ(row.received, received != nullptr);
        EXPECT_EQ(row.inPlace ? 'b' : '.', prepared[0]);
        EXPECT_EQ('.', foreign[0]);
        EXPECT_TRUE(!received || received->innerBufferNum == (row.inPlace ? 0U : 1U));
        prepared[0] = '.';
    }
}

TEST_F(KelmProtocolTest, BlocksOfNoUseAreReadOffAndNotKept) {
    const struct {
        KelmMsgType type;
        std::vector<uint32_t> blocks;  // their types
        char kept;                     // what the block is made of, 'a' for the first
    } rows[] = {{KELM_MESSAGE_CREATE_GRAPH_REQ, {0, 3, 0, 7}, 'c'},  // the last graph binary
                {KELM_MESSAGE_CREATE_GRAPH_REQ, {1, 2}, 0},
                {KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ, {0, 0, 0, 0, 0}, 0},
                {KELM_MESSAGE_PING_EVT, {0}, 0}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.type << " " << row.blocks.size());
        constexpr size_t kBlockBytes = 20000;  // more than is read off at once
        const RawPeer peer = connectRaw();
        MessagePtr message(kelmAllocMessage(row.type));
        for (const uint32_t type : row.blocks) {
            message->dataType[message->dataNum] = type;
            message->dataSize[message->dataNum++] = kBlockBytes;
        }
        peer.send(message.get(), message->size);
        for (size_t i = 0; i < row.blocks.size(); ++i) {
            peer.send(std::string(kBlockBytes, static_cast<char>('a' + i)));
        }
        const MessagePtr next(kelmAllocMessage(KELM_MESSAGE_QUERY_STATUS_REQ));
        peer.send(next.get(), next->size);
        const MessagePtr received = receive();
        ASSERT_TRUE(received);
        const MessagePtr following = receive();
        EXPECT_TRUE(following && following->type == KELM_MESSAGE_QUERY_STATUS_REQ);
        EXPECT_EQ(row.kept != 0 ? 1U : 0U, received->innerBufferNum);
        if (row.type != KELM_MESSAGE_CREATE_GRAPH_REQ) continue;
        const uint64_t data = as<KelmMsgReqCreateGraph>(received).graphData;
        const auto block = kelmTakeBlock(received.get(), data);
        EXPECT_EQ(block ? std::string(block.get(), kBlockBytes) : "",
                  std::string(row.kept != 0 ? kBlockBytes : 0, row.kept));
        EXPECT_EQ(nullptr, kelmTakeBlock(received.get(), data));  // only once
    }
}

TEST_F(KelmProtocolTest, RecycledRecordCarriesNothingOver) {
    const UniqueFd file = makeFile();
    MessagePtr request = makeInferRequest(file.get(), 0, 0);
    ASSERT_EQ(0, send(request));
    request.reset();  // a built message does not own the descriptor
    (void)receive();
    const KelmMsgReqInferTask zero = {};
    for (int i = 0; i < 2; ++i) {
        const MessagePtr next(kelmAllocMessage(KELM_MESSAGE_INFER_TASK_REQ));
        EXPECT_EQ(0, std::memcmp(&zero.head.base.fdNum, &next->fdNum,
                                 sizeof(zero) - offsetof(KelmMsgBase, fdNum)));
    }
    EXPECT_NE(-1, ::fcntl(file.get(), F_GETFD));
}

TEST_F(KelmProtocolTest, AnswerNeverReachesAStrangerWhoGotTheNumberOfItsConnection) {
    ASSERT_EQ(0, send(MessagePtr(kelmAllocMessage(KELM_MESSAGE_PING_EVT))));
    MessagePtr request = receive();
    const int number = service->getSimulateFD();
    IPC::ConnectionBase::close(number);
    service.reset();
    IPC::PollEvent event;
    (void)channel.poller->wait(&event, 0);  // drops the registry's share
    MessagePtr answer(kelmAllocMessage(KELM_MESSAGE_PING_EVT));
    kelmShareOrigin(*request, *answer);
    request.reset();
    {
        const auto stranger = std::make_shared<IPC::ConnectionUDS>(nullptr);
        EXPECT_NE(number, stranger->getSimulateFD());
    }
    EXPECT_EQ(-1, kelmSendMessage(number, answer.get()));
    answer.reset();
    EXPECT_EQ(number, std::make_shared<IPC::ConnectionUDS>(nullptr)->getSimulateFD());
}

class MessageWriterTest : public testing::Test {
 protected:
    static MessagePtr makeAnswer(uint64_t number) {
        MessagePtr message(kelmAllocMessage(KELM_MESSAGE_INFER_TASK_RSP));
        as<KelmMsgRsp>(message).reqSeqNo = number;
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
    EXPECT_THAT(receiveNumbers(5), ElementsAre(0, 1, 2, 3, 4));
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
    EXPECT_THAT(receiveNumbers(1), ElementsAre(1));
    EXPECT_EQ(report->size, peer.receive(report->size).size());

    ASSERT_EQ(0, writer.append(makeAnswer(2).get()));
    const UniqueFd file = makeFile();
    MessagePtr request(kelmAllocMessage(KELM_MESSAGE_TEST_SEND_FD_REQ));
    reinterpret_cast<KelmMsgReqTestSendFd*>(request.get())->testFd = file.get();
    ASSERT_EQ(0, writer.append(request.get()));
    EXPECT_THAT(receiveNumbers(1), ElementsAre(2));
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
        auto answer = startCalling([send = other] { return send(makeAnswer(2).get()); });
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
        EXPECT_EQ(0, answer.get());
    }
}

TEST_F(MessageWriterTest, WriterThatMustNotWaitKeepsWhatFindsNoRoom) {
    MessageWriter writer(connection->getSimulateFD());
    std::vector<uint64_t> sent;
    const auto gather = [&](size_t count) {
        for (; count > 0; --count) {
            sent.push_back(sent.size());
            ASSERT_EQ(0, writer.append(makeAnswer(sent.back()).get(), false));
        }
    };
    const auto receiveAll = [&] {
        auto flushed = startCalling([&] { return writer.flush(); });
        EXPECT_EQ(receiveNumbers(sent.size()), sent);
        EXPECT_EQ(flushed.get(), 0);
        sent.clear();
    };
    MessageWriter::Result result = MessageWriter::DONE;
    while (result == MessageWriter::DONE && sent.size() < 100000) {
        gather(10);
        result = writer.tryFlush();
        ASSERT_EQ(writer.empty(), result == MessageWriter::DONE);
    }
    EXPECT_EQ(result, MessageWriter::WOULD_WAIT);
    receiveAll();
    gather(1);
    {
        const MutexLock other(connection->writeMutex());
        EXPECT_EQ(writer.tryFlush(), MessageWriter::WOULD_WAIT);
    }
    gather(40);  // more than the kernel would surely take whole
    EXPECT_EQ(writer.tryFlush(), MessageWriter::WOULD_WAIT);
    EXPECT_EQ(0, peer.pending());
    receiveAll();
    gather(1);
    EXPECT_EQ(writer.tryFlush(), MessageWriter::DONE);
    EXPECT_TRUE(writer.empty());
    receiveAll();
    gather(1);
    peer.hangUp();
    EXPECT_EQ(writer.tryFlush(), MessageWriter::FAILED);
    EXPECT_TRUE(writer.empty());
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
