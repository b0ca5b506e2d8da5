#include "fakes/SocketChannel.h"
#include "protocol/src/KelmProtocol.h"

namespace kelm {
namespace {

// What a peer sends: a record, then segments with so many descriptors each, then bytes.
struct Attack {
    explicit Attack(uint32_t type) {
        const MessagePtr message(kelmAllocMessage(static_cast<KelmMsgType>(type)));
        const size_t size = message ? message->size : sizeof(KelmMsgBase);
        record.assign(size, '\0');
        if (message) std::memcpy(record.data(), message.get(), size);
        put(offsetof(KelmMsgBase, type), type);
    }

    // Puts a number over so many places of the record, one behind the other.
    template <class Number = uint32_t>
    Attack& put(size_t offset, Number number, size_t times = 1) {
        for (size_t i = 0; i < times; ++i) {
            std::memcpy(record.data() + offset + i * sizeof(number), &number, sizeof(number));
        }
        return *this;
    }
    // Announces so many blocks of a size each.
    Attack& blocks(uint32_t number, uint64_t size) {
        put(offsetof(KelmMsgBase, dataNum), number);
        return put(offsetof(KelmMsgBase, dataSize), size, std::min(number, kMaxMessageBlocks));
    }
    // Announces so many descriptors, and sends those.
    Attack& fds(uint32_t announced, const std::vector<size_t>& numbers = {}) {
        segments = numbers;
        return put(offsetof(KelmMsgBase, fdNum), announced);
    }
    Attack& bytes(size_t number) {
        tail.assign(number, 'd');
        return *this;
    }
    Attack& cut(size_t size) {
        record.resize(size);
        return *this;
    }

    std::string record;
    std::vector<size_t> segments;
    std::string tail;
};

// Takes what the record names, so that a sanitizer sees what goes too far.
void touch(KelmMsgBase* message) {
    if (message->type == KELM_MESSAGE_CREATE_GRAPH_REQ) {
        const auto& request = *reinterpret_cast<KelmMsgReqCreateGraph*>(message);
        const auto* const data = reinterpret_cast<const char*>(request.graphData);
        EXPECT_EQ(request.graphDataSize, std::string(data, request.graphDataSize).size());
    } else if (message->type == KELM_MESSAGE_INFER_TASK_REQ) {
        auto& request = *reinterpret_cast<KelmMsgReqInferTask*>(message);
        KelmBuffer buffers[3];
        takeTaskBuffers(request, buffers[0], buffers[1], buffers[2]);
        for (const KelmBuffer& buffer : buffers) {
            EXPECT_TRUE(buffer.fd <= 0 || ::close(buffer.fd) == 0);
        }
    }
}

class ProtocolFuzzTest : public testing::Test {
 protected:
    // Plays the attack, then hangs up. Returns how many messages came out of it.
    int play(const Attack& attack) {
        RawPeer peer(channel.path);
        const auto connection = channel.accept();
        const int number = connection->getSimulateFD();
        EXPECT_GT(number, 0);
        peer.send(attack.record);
        for (const size_t count : attack.segments) {
            peer.sendFds("1234", std::vector<int>(count, file.get()));
        }
        if (!attack.tail.empty()) peer.send(attack.tail);
        peer.hangUp();
        int messages = 0;
        while (const MessagePtr message{kelmReceiveMessage(number)}) {
            EXPECT_TRUE(checkMessage(*message, message->size));
            touch(message.get());
            ++messages;
        }
        IPC::ConnectionBase::close(number);
        IPC::PollEvent event;
        EXPECT_FALSE(channel.poller->wait(&event, 0));  // lets the closed one end
        return messages;
    }

    SocketChannel channel;
    UniqueFd file = makeFile();
};

TEST_F(ProtocolFuzzTest, CraftedRecordsNeitherCrashNorLeak) {
    const Attack infer(KELM_MESSAGE_INFER_TASK_REQ);
    const Attack graph(KELM_MESSAGE_CREATE_GRAPH_REQ);
    const Attack test(KELM_MESSAGE_TEST_SEND_FD_REQ);
    const auto with = [](Attack attack) { return attack; };
    const std::vector<size_t> ones(12, 1);  // a descriptor a segment
    constexpr size_t kRoles = offsetof(KelmMsgBase, fdType);
    constexpr size_t kInnerNumber = offsetof(KelmMsgBase, innerBufferNum);
    Attack withoutEnd = with(graph).blocks(1, 4).bytes(4);
    withoutEnd.put(offsetof(KelmMsgBase, recvNum), 5000)
        .put(offsetof(KelmMsgBase, peerRecvNum), 0xffffffff)
        .put(offsetof(KelmMsgBase, peerRecvData), uint64_t{0x1000}, kMaxMessageBlocks)
        .put(offsetof(KelmMsgBase, peerRecvSize), uint64_t{1} << 20, kMaxMessageBlocks);
    Attack foreign = with(graph).put(kInnerNumber, 5);
    foreign.put(offsetof(KelmMsgBase, innerBuffer), uint64_t{0x1000}, kMaxMessageBlocks);
    const struct {
        const char* name;
        int messages;  // that come out of it
        Attack attack;
    } rows[] = {
        {"plain", 1, infer},
        {"descriptors without end", 0, with(infer).fds(0xffffffff, ones)},
        {"more descriptors than places", 1, with(infer).fds(12, ones)},
        {"a role twice and one that is none", 1,
         with(infer).fds(4, {1, 1, 1, 1}).put(kRoles + 4, 1).put(kRoles + 12, 77)},
        {"several descriptors a segment", 1, with(infer).fds(1, {5})},
        {"descriptors that were not announced", 1, with(infer).fds(0, {1, 253})},
        {"a descriptor of this process", 1,
         with(infer).put(offsetof(KelmMsgReqInferTask, inputBuffer) + offsetof(KelmBuffer, fd), 1)},
        {"fewer descriptors than announced", 0, with(infer).fds(3, {1})},
        {"bytes without their descriptor", 0, with(infer).fds(1).bytes(4)},
        {"six blocks", 0, with(graph).blocks(6, 4).bytes(24)},
        {"five blocks", 1, with(graph).blocks(5, 4).bytes(20)},
        {"blocks of 4 GiB that never come", 0, with(graph).blocks(5, 0xffffffff).bytes(100)},
        {"a size beyond 32 bits", 1, with(graph).blocks(1, 0xffffffff00000004).bytes(4)},
        {"an empty block", 0, with(graph).blocks(1, 0)},
        {"prepared buffers without end", 1, withoutEnd},
        {"inner buffers at addresses of the peer", 1, foreign},
        {"more inner buffers than places", 1, with(graph).put(kInnerNumber, 0x80000000)},
        {"a graph at an address of the peer", 1,
         with(graph)
             .put(offsetof(KelmMsgReqCreateGraph, graphData), uint64_t{0x1000})
             .put(offsetof(KelmMsgReqCreateGraph, graphDataSize), 100)},
        {"texts without an end", 1, with(graph).put(512, 'x', graph.record.size() - 512)},
        {"the end of the requests", 0, Attack(KELM_MESSAGE_REQ_END)},
        {"far beyond the types", 0, Attack(0xffffffff)},
        {"not the size of its type", 0, with(infer).put(offsetof(KelmMsgBase, size), 1 << 20)},
        {"half a head", 0, with(infer).cut(100)},
        {"half a body", 0, with(infer).cut(700)},
        {"descriptor test without a descriptor", 0, test},
        {"descriptor test with two", 0, with(test).fds(2, {1, 1})},
        {"descriptor test", 1, with(test).fds(1, {1})},
    };
    const size_t before = countDescriptors();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.messages, play(row.attack));
        EXPECT_EQ(before, countDescriptors());
    }
}

}  // namespace
}  // namespace kelm
