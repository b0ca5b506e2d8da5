#include "managers/ClientSender.h"

#include "fakes/Eventually.h"
#include "fakes/SocketChannel.h"
#include "managers/Backlog.h"
#include "protocol/src/KelmProtocol.h"
#include "protocol/src/MessagePtr.h"
#include "utils/Log.h"

namespace kelm {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

class ClientSenderTest : public testing::Test {
 protected:
    void SetUp() override { Log::instance().setLogLevel(LOG_LEVEL_PROC); }

    static void post(ClientSender& sender, const KelmMsgBase& message) {
        sender.post(message.size, [&] { sender.write(const_cast<KelmMsgBase&>(message)); });
    }
    static MessagePtr makeEvent() {
        MessagePtr message(kelmAllocMessage(KELM_MESSAGE_TASK_DONE_EVT));
        reinterpret_cast<KelmMsgEvt*>(message.get())->evtSeqNo = 5;
        return message;
    }

    SocketChannel channel;
    RawPeer peer{channel.path};
    std::shared_ptr<IPC::ConnectionUDS> connection = channel.accept();
    const int number = connection->getSimulateFD();
};

TEST_F(ClientSenderTest, MessageThatIsNotWrittenIsToldAsThat) {
    const MessagePtr event = makeEvent();
    const MessagePtr report(kelmAllocMessage(KELM_MESSAGE_QUERY_STATUS_RSP));  // not gathered
    for (const char* line : {"sendEvent(evtSeqNo=5) to client(id:7) failed, ret=Broken pipe",
                             "abort sendEvent(evtSeqNo=5) for closed client(id:7)"}) {
        SCOPED_TRACE(line);
        testing::internal::CaptureStdout();
        {
            ClientSender sender(7, number, true);
            *line == 's' ? peer.hangUp() : connection->close();
            for (const MessagePtr* message : {&event, &report, &event}) post(sender, **message);
        }
        const std::string text = testing::internal::GetCapturedStdout();
        EXPECT_THAT(text, HasSubstr(line));
        EXPECT_THAT(text, Not(HasSubstr("done")));
    }
}

TEST_F(ClientSenderTest, MessageBehindTheEndIsDroppedWhole) {
    const MessagePtr event = makeEvent();
    {
        ClientSender sender(7, number, true);
        post(sender, *event);
        sender.postNotice([&sender] { sender.end(); });
        post(sender, *event);
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
