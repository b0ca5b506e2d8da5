#include <random>

#include "fakes/SocketChannel.h"
#include "protocol/src/KelmProtocol.h"
#include "utils/StringHelper.h"

namespace kelm {
namespace {

// What a peer sends: a record, then segments with so many descriptors each, then bytes.
struct Attack {
    std::string record;
    std::vector<size_t> segments;
    std::string tail;
};

KelmMsgBase& headOf(Attack& attack) {
    return *reinterpret_cast<KelmMsgBase*>(attack.record.data());
}

Attack makeAttack(uint32_t type) {
    const MessagePtr message(kelmAllocMessage(static_cast<KelmMsgType>(type)));
    Attack attack;
    if (message) {
        attack.record.assign(reinterpret_cast<const char*>(message.get()), message->size);
    } else {
        attack.record.assign(sizeof(KelmMsgBase), '\0');
        headOf(attack).type = type;
    }
    return attack;
}

// Looks at every text and buffer, so that a sanitizer sees a read that goes too far.
size_t touch(KelmMsgBase* message) {
    size_t sum = 0;
    if (message->type == KELM_MESSAGE_REGISTER_REQ) {
        const auto* const request = reinterpret_cast<KelmMsgReqRegister*>(message);
        sum += StringHelper::readBounded(request->clientName).size();
    } else if (message->type == KELM_MESSAGE_CREATE_GRAPH_REQ) {
        const auto* const request = reinterpret_cast<KelmMsgReqCreateGraph*>(message);
        sum += StringHelper::readBounded(request->graphName).size() +
               StringHelper::readBounded(request->graphTag).size() +
               StringHelper::readBounded(request->streamId).size() +
               StringHelper::readBounded(request->graphPath).size();
        const auto* const data = reinterpret_cast<const char*>(request->graphData);
        for (uint32_t i = 0; i < request->graphDataSize; ++i) sum += data[i] != 0;
    } else if (message->type == KELM_MESSAGE_INFER_TASK_REQ) {
        auto* const request = reinterpret_cast<KelmMsgReqInferTask*>(message);
        KelmBuffer buffers[3];
        takeTaskBuffers(*request, buffers[0], buffers[1], buffers[2]);
        for (const KelmBuffer& buffer : buffers) {
            EXPECT_TRUE(buffer.fd <= 0 || ::close(buffer.fd) == 0);
            sum += StringHelper::readBounded(buffer.name).size();
        }
    }
    return sum;
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
        return messages;
    }
    void settle() {
        IPC::PollEvent event;
        EXPECT_FALSE(channel.poller->wait(&event, 0));
    }

    SocketChannel channel;
    UniqueFd file = makeFile();
};

TEST_F(ProtocolFuzzTest, CraftedRecordsNeitherCrashNorLeak) {
    struct Row {
        const char* name;
        uint32_t type;
        void (*craft)(Attack& attack);
        int messages;
    };
    const uint32_t infer = KELM_MESSAGE_INFER_TASK_REQ;
    const uint32_t graph = KELM_MESSAGE_CREATE_GRAPH_REQ;
    const uint32_t test = KELM_MESSAGE_TEST_SEND_FD_REQ;
    const Row rows[] = {
        {"plain", infer, [](Attack&) {}, 1},
        {"all descriptors of the world", infer,
         [](Attack& a) {
             headOf(a).fdNum = 0xffffffff;
             a.segments.assign(20, 1);
         },
         0},
        {"more descriptors than places", infer,
         [](Attack& a) {
             headOf(a).fdNum = 12;
             a.segments.assign(12, 1);
         },
         1},
        {"a role twice and one that is none", infer,
         [](Attack& a) {
             headOf(a).fdNum = 4;
             headOf(a).fdType[1] = 1;
             headOf(a).fdType[3] = 77;
             a.segments.assign(4, 1);
         },
         1},
        {"several descriptors a segment", infer,
         [](Attack& a) {
             headOf(a).fdNum = 1;
             a.segments = {5};
         },
         1},
        {"descriptors nobody announced", infer,
         [](Attack& a) {
             a.segments = {1, 253};
         },
         1},
        {"fewer descriptors than announced", infer,
         [](Attack& a) {
             headOf(a).fdNum = 3;
             a.segments = {1};
         },
         0},
        {"bytes without their descriptor", infer,
         [](Attack& a) {
             headOf(a).fdNum = 1;
             a.tail = "1234";
         },
         0},
        {"six blocks", graph,
         [](Attack& a) {
             headOf(a).dataNum = 6;
             for (uint64_t& size : headOf(a).dataSize) size = 4;
             a.tail.assign(24, 'd');
         },
         0},
        {"five blocks", graph,
         [](Attack& a) {
             headOf(a).dataNum = 5;
             for (uint64_t& size : headOf(a).dataSize) size = 4;
             a.tail.assign(20, 'd');
         },
         1},
        {"blocks of 4 GiB that never come", graph,
         [](Attack& a) {
             headOf(a).dataNum = 5;
             for (uint64_t& size : headOf(a).dataSize) size = 0xffffffff;
             a.tail.assign(100, 'd');
         },
         0},
        {"a size beyond 32 bits", graph,
         [](Attack& a) {
             headOf(a).dataNum = 1;
             headOf(a).dataSize[0] = 0xffffffff00000004;
             a.tail.assign(4, 'd');
         },
         1},
        {"an empty block", graph, [](Attack& a) { headOf(a).dataNum = 1; }, 0},
        {"prepared buffers without end", graph,
         [](Attack& a) {
             headOf(a).recvNum = 5000;
             headOf(a).peerRecvNum = 0xffffffff;
             headOf(a).dataNum = 1;
             headOf(a).dataSize[0] = 4;
             for (uint32_t i = 0; i < kMaxMessageBlocks; ++i) {
                 headOf(a).peerRecvData[i] = 0x1000;
                 headOf(a).peerRecvSize[i] = 1 << 20;
             }
             a.tail.assign(4, 'd');
         },
         1},
        {"inner buffers at addresses of the peer", graph,
         [](Attack& a) {
             headOf(a).innerBufferNum = 5;
             for (uint64_t& address : headOf(a).innerBuffer) address = 0x1000;
         },
         1},
        {"more inner buffers than places", graph,
         [](Attack& a) { headOf(a).innerBufferNum = 0x80000000; }, 1},
        {"texts without an end", graph,
         [](Attack& a) { std::fill(a.record.begin() + 512, a.record.end(), 'x'); }, 1},
        {"the end of the requests", KELM_MESSAGE_REQ_END, [](Attack&) {}, 0},
        {"the end of the events", KELM_MESSAGE_EVT_END, [](Attack&) {}, 0},
        {"no type", 27, [](Attack&) {}, 0},
        {"far beyond the types", 0xffffffff, [](Attack&) {}, 0},
        {"a size that is not the type's", infer, [](Attack& a) { headOf(a).size = 1 << 20; }, 0},
        {"half a head", infer, [](Attack& a) { a.record.resize(100); }, 0},
        {"half a body", infer, [](Attack& a) { a.record.resize(700); }, 0},
        {"descriptor test without a descriptor", test, [](Attack&) {}, 0},
        {"descriptor test with two", test,
         [](Attack& a) {
             headOf(a).fdNum = 2;
             a.segments = {1, 1};
         },
         0},
        {"descriptor test", test,
         [](Attack& a) {
             headOf(a).fdNum = 1;
             a.segments = {1};
         },
         1},
    };
    const size_t before = countDescriptors();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Attack attack = makeAttack(row.type);
        row.craft(attack);
        EXPECT_EQ(row.messages, play(attack));
        settle();
        EXPECT_EQ(before, countDescriptors());
    }
}

// Numbers that break arithmetic and bounds, put over any field of the record.
void mutate(Attack& attack, std::mt19937& random) {
    constexpr uint32_t kNumbers[] = {0, 1, 2, 5, 6, 10, 11, 255, 5000, 0x7fffffff, 0xffffffff};
    const auto below = [&random](size_t limit) { return random() % limit; };
    const size_t fields = attack.record.size() / sizeof(uint32_t);
    for (size_t i = below(4); i > 0; --i) {
        // Counts and sizes of the head, half of the time; anything else otherwise.
        constexpr size_t kCounts[] = {16, 60, 100, 144, 184, 204, 248, 308, 412};
        const size_t offset =
            below(2) == 0 ? kCounts[below(std::size(kCounts))] : below(fields) * sizeof(uint32_t);
        const uint32_t number = kNumbers[below(std::size(kNumbers))];
        std::memcpy(attack.record.data() + offset, &number, sizeof(number));
    }
    for (size_t i = below(4); i > 0; --i) attack.segments.push_back(1 + below(12));
    attack.tail.assign(below(3) * below(3000), static_cast<char>(random()));
    if (below(10) == 0) attack.record.resize(1 + below(attack.record.size()));
}

TEST_F(ProtocolFuzzTest, MutatedRecordsNeitherCrashNorLeak) {
    constexpr int kRounds = 2000;
    std::mt19937 random(20240611);  // fixed, so that a finding comes again
    const size_t before = countDescriptors();
    int messages = 0;
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        Attack attack = makeAttack(static_cast<uint32_t>(random() % (kMessageTypes + 2)));
        mutate(attack, random);
        messages += play(attack);
        if (round % 100 != 0) continue;
        settle();
        ASSERT_EQ(before, countDescriptors());
    }
    EXPECT_GT(messages, kRounds / 10);  // the corpus is not refused at the door
    EXPECT_LT(messages, kRounds);
    settle();
    EXPECT_EQ(before, countDescriptors());
}

TEST(MessageCheckTest, ArbitraryBytesAreReadWithinBounds) {
    std::mt19937 random(7);
    int accepted = 0;
    for (int round = 0; round < 5000; ++round) {
        Attack attack = makeAttack(static_cast<uint32_t>(random() % kMessageTypes));
        if (round % 2 == 0) mutate(attack, random);
        attack.record.resize(std::max(attack.record.size(), sizeof(KelmMsgBase)));
        const std::unique_ptr<char[]> exact(new char[attack.record.size()]);
        std::memcpy(exact.get(), attack.record.data(), attack.record.size());
        accepted +=
            checkMessage(*reinterpret_cast<KelmMsgBase*>(exact.get()), attack.record.size());
    }
    EXPECT_GT(accepted, 0);
    EXPECT_LT(accepted, 5000);
}

}  // namespace
}  // namespace kelm
