// Messages as a caller with buffers of its own receives them, whole, off a connection: any records,
// with descriptors and bytes behind them, or those that the library's own side sends. The last byte
// of an input tells how much memory there is, its size who sends and who has the record's memory.

#include "tests/fakes/TestPch.h"
// Behind the set of headers that fakes rely on.
#include "tests/fakes/FailingMemory.h"
#include "tests/fakes/SocketChannel.h"
#include "tests/fuzz/targets/FuzzInput.h"

namespace kelm {
namespace {

constexpr size_t kMostBytes = 500000;
// Of the blocks that cannot be had: none, all but small records, those that grow with their bytes.
constexpr size_t kMissing[] = {SIZE_MAX, SIZE_MAX, 2000, 300000};

void require(bool holds) {
    if (!holds) __builtin_trap();
}

// What a peer sends, made before anybody sends or reads: memory may be missing then.
struct Part {
    std::string record;
    uint32_t descriptors = 0;
    std::string tail;
};

Part makePart(FuzzInput& input, char* prepared, size_t preparedBytes) {
    Part part;
    part.record = makeRecord(static_cast<uint32_t>(input.below(kMessageTypes + 1)));
    auto& head = *reinterpret_cast<KelmMsgBase*>(part.record.data());
    part.tail.assign(input.below(8) * input.take<uint16_t>() % kMostBytes, 't');
    head.dataNum = part.tail.empty() ? 0 : 1;
    head.dataSize[0] = part.tail.size();
    head.dataType[0] = static_cast<uint32_t>(input.below(2));
    head.peerRecvNum = static_cast<uint32_t>(input.below(2));
    head.peerRecvData[0] = reinterpret_cast<uint64_t>(prepared);
    head.peerRecvSize[0] = input.below(2) * preparedBytes;
    head.fdNum = static_cast<uint32_t>(input.below(3));
    part.descriptors = head.fdNum;
    input.patch(part.record);
    (void)checkMessage(head, part.record.size());
    return part;
}

std::vector<Part> makeParts(FuzzInput& input, char* prepared, size_t preparedBytes) {
    std::vector<Part> parts;
    size_t bytes = 0;
    while (!input.isEmpty() && bytes < kMostBytes) {
        parts.push_back(makePart(input, prepared, preparedBytes));
        bytes += parts.back().record.size() + parts.back().tail.size();
    }
    return parts;
}

void sendRaw(WireClient& peer, const std::vector<Part>& parts) {
    for (const Part& part : parts) {
        (void)peer.sendBytes(part.record);
        for (uint32_t i = 0; i < part.descriptors; ++i) {
            (void)peer.sendFds("1234", {STDERR_FILENO});
        }
        (void)peer.sendBytes(part.tail);
    }
    peer.hangUp();
}

// The records of the types as programs fill them: nothing else of a part may reach the sender,
// which believes its own addresses.
void sendByLibrary(IPC::ConnectionUDS& peer, const std::vector<Part>& parts) {
    for (const Part& part : parts) {
        const auto& wanted = *reinterpret_cast<const KelmMsgBase*>(part.record.data());
        const MessagePtr message(kelmAllocMessage(static_cast<KelmMsgType>(wanted.type)));
        if (!message) continue;
        if (wanted.type == KELM_MESSAGE_CREATE_GRAPH_REQ) {
            auto& request = reinterpret_cast<KelmMsgReqCreateGraph&>(*message);
            request.graphData = reinterpret_cast<uint64_t>(part.tail.data());
            request.graphDataSize = static_cast<uint32_t>(part.tail.size());
        } else if (wanted.type == KELM_MESSAGE_INFER_TASK_REQ) {
            auto& request = reinterpret_cast<KelmMsgReqInferTask&>(*message);
            request.inputBuffer.fd = request.auxBuffer.fd = STDERR_FILENO;
        } else if (wanted.type == KELM_MESSAGE_TEST_SEND_FD_REQ) {
            reinterpret_cast<KelmMsgReqTestSendFd&>(*message).testFd = STDERR_FILENO;
        }
        if (kelmSendMessage(peer.getSimulateFD(), message.get()) != 0) break;
    }
    peer.shutdown();
}

void check(const KelmMsgBase& message, bool isByLibrary) {
    require(checkMessage(message, message.size));
    if (!isByLibrary || message.type != KELM_MESSAGE_CREATE_GRAPH_REQ) return;
    const auto& request = reinterpret_cast<const KelmMsgReqCreateGraph&>(message);
    if (request.graphData == 0) return;  // a request by path, or without memory
    const auto* const bytes = reinterpret_cast<const char*>(request.graphData);
    require(std::all_of(bytes, bytes + request.graphDataSize, [](char c) { return c == 't'; }));
}

void receiveAll(int number, PreparedBuffers buffers, bool isByLibrary, bool hasOwnRecord,
                size_t firstMissing) {
    std::vector<uint64_t> room((sizeof(KelmMsgReqCreateGraph) + 7) / 8);
    auto* const copy = reinterpret_cast<KelmMsgBase*>(room.data());
    const size_t bytes = room.size() * sizeof(room[0]);
    const NoMemoryFrom missing(firstMissing);
    if (hasOwnRecord && kelmReceiveMessage(number, copy, bytes, buffers) >= 0) {
        check(*copy, isByLibrary);
        kelmReleaseContents(copy);
    }
    while (const MessagePtr message{kelmReceiveMessage(number, buffers)}) {
        check(*message, isByLibrary);
    }
}

struct Target {
    // What is logged is formatted, and of no use but for a find.
    Target() { ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO); }

    const SocketChannel channel;
};

// Peer and connection are gone on return.
void play(const SocketChannel& channel, const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const bool isByLibrary = size % 4 == 3;
    char prepared[64];
    std::vector<PreparedBuffer> buffers;
    if (input.below(2) == 0) buffers.push_back({prepared, sizeof(prepared)});
    const std::vector<Part> parts = makeParts(input, prepared, sizeof(prepared));
    const auto library = std::make_shared<IPC::ConnectionUDS>(nullptr);
    std::optional<WireClient> raw;
    if (isByLibrary) {
        require(library->connect(channel.path));
    } else {
        raw.emplace(channel.path);
    }
    auto connection = channel.accept();
    const int number = connection->getSimulateFD();
    auto sender = std::async(std::launch::async,
                             [&] { raw ? sendRaw(*raw, parts) : sendByLibrary(*library, parts); });
    receiveAll(number, buffers, isByLibrary, size % 2 == 0,
               kMissing[size == 0 ? 0 : data[size - 1] % std::size(kMissing)]);
    connection->shutdown();  // ends a send that nobody reads
    sender.get();
    IPC::ConnectionBase::close(number);
    connection.reset();
    IPC::PollEvent event;
    (void)channel.poller->wait(&event, 0);  // lets the closed one end
    require(kelmReceiveMessage(number) == nullptr);
}

}  // namespace
}  // namespace kelm

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kelm;
    static const Target& target = *new Target();
    const size_t before = countDescriptors();
    play(target.channel, data, size);
    require(countDescriptors() == before);  // none is left open, or closed twice
    return 0;
}
