// A message as a caller with buffers of its own receives it, whole, off a connection: any record,
// then descriptors and bytes.

#include "tests/fakes/TestPch.h"
// Behind the set of headers that fakes rely on.
#include "tests/fakes/SocketChannel.h"
#include "tests/fuzz/targets/FuzzInput.h"
#include "utils/Log.h"

namespace kelm {
namespace {

constexpr size_t kMostBytes = 90000;

void play(const SocketChannel& channel, FuzzInput input, bool asCopy) {
    WireClient peer(channel.path);
    const auto connection = channel.accept();
    const int number = connection->getSimulateFD();
    char prepared[64];
    const bool hasBuffer = input.below(2) == 0;
    size_t sent = 0;
    while (!input.isEmpty() && sent < kMostBytes) {  // nobody reads before all is sent
        std::string record = makeRecord(static_cast<uint32_t>(input.below(kMessageTypes + 1)));
        auto& head = *reinterpret_cast<KelmMsgBase*>(record.data());
        const std::string tail(input.below(8) * input.take<uint16_t>() % kMostBytes, 't');
        sent += tail.size() + record.size();
        head.dataNum = tail.empty() ? 0 : 1;
        head.dataSize[0] = tail.size();
        head.dataType[0] = static_cast<uint32_t>(input.below(2));
        head.peerRecvNum = static_cast<uint32_t>(input.below(2));
        head.peerRecvData[0] = reinterpret_cast<uint64_t>(prepared);
        head.peerRecvSize[0] = input.below(2) * sizeof(prepared);
        head.fdNum = static_cast<uint32_t>(input.below(3));
        const uint32_t descriptors = head.fdNum;
        input.patch(record);
        (void)peer.sendBytes(record);
        for (uint32_t i = 0; i < descriptors; ++i) (void)peer.sendFds("1234", {STDERR_FILENO});
        (void)peer.sendBytes(tail);
    }
    peer.hangUp();
    std::vector<PreparedBuffer> buffers;
    if (hasBuffer) buffers.push_back({prepared, sizeof(prepared)});
    std::vector<uint64_t> room((sizeof(KelmMsgReqCreateGraph) + 7) / 8);
    auto* const copy = reinterpret_cast<KelmMsgBase*>(room.data());
    const size_t roomBytes = room.size() * sizeof(room[0]);
    if (asCopy && kelmReceiveMessage(number, copy, roomBytes, buffers) >= 0) {
        kelmReleaseContents(copy);
    }
    while (const MessagePtr message{kelmReceiveMessage(number, buffers)}) {
        if (!checkMessage(*message, message->size)) __builtin_trap();
    }
    IPC::ConnectionBase::close(number);
    IPC::PollEvent event;
    (void)channel.poller->wait(&event, 0);  // lets the closed one end
}

}  // namespace
}  // namespace kelm

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kelm;
    static const SocketChannel& channel = *new SocketChannel();
    Log::instance().setLogLevel(0);
    const size_t before = countDescriptors();
    play(channel, FuzzInput(data, size), size % 2 == 0);
    if (countDescriptors() != before) __builtin_trap();  // one is left open, or closed twice
    return 0;
}
