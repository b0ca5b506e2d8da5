#include "managers/ClientSender.h"

#include "fakes/Eventually.h"
#include "fakes/SocketChannel.h"
#include "managers/Backlog.h"
#include "protocol/src/KelmProtocol.h"
#include "protocol/src/MessagePtr.h"

namespace kelm {
namespace {

using namespace std::chrono_literals;

TEST(ClientSenderTest, MessageBehindTheEndIsDroppedWhole) {
    SocketChannel channel;
    RawPeer peer{channel.path};
    const auto connection = channel.accept();
    const MessagePtr event(kelmAllocMessage(KELM_MESSAGE_TASK_DONE_EVT));
    {
        ClientSender sender(7, connection->getSimulateFD(), true);
        const auto post = [&] { sender.post(event->size, [&] { sender.write(*event); }); };
        post();
        sender.postNotice([&sender] { sender.end(); });
        post();
    }
    EXPECT_EQ(peer.pending(), static_cast<int>(event->size));
}

TEST(BacklogTest, HoldsUpOnlyWhatIsBothManyAndLarge) {
    constexpr uint64_t kReport = 54120;
    Backlog backlog(200);
    for (int i = 0; i < 199; ++i) backlog.add(2 * kReport);
    EXPECT_FALSE(backlog.isFull());  // some 20 MB, but few
    for (int i = 0; i < 199; ++i) backlog.remove(2 * kReport);
    for (int i = 0; i < 20000; ++i) backlog.add(560);
    EXPECT_FALSE(backlog.isFull());  // many, but some 11 MB
    for (; !backlog.isFull(); backlog.add(kReport)) continue;
    auto held = std::async(std::launch::async, [&] { backlog.add(1); });
    EXPECT_EQ(held.wait_for(50ms), std::future_status::timeout);
    backlog.remove(kReport);
    EXPECT_EQ(held.wait_for(10s), std::future_status::ready);
}

}  // namespace
}  // namespace kelm
