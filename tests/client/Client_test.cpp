#include "client/Client.h"

#include "fakes/Eventually.h"
#include "fakes/ListenOn.h"
#include "fakes/TempDir.h"
#include "protocol/src/KelmMessage.h"

namespace kelm::client {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kShort{50};

// Listens where a service would, and neither reads nor answers unless told to.
struct SilentService {
    template <class Record>
    void send(const Record& record) {
        EXPECT_EQ(::send(peer.get(), &record, sizeof(record), MSG_NOSIGNAL),
                  static_cast<ssize_t>(sizeof(record)));
    }

    const TempDir dir;
    const UniqueFd listener = listenOn(dir.path() + "/socket");
    std::unique_ptr<Client> client = std::move(Client::connect(dir.path() + "/socket").value());
    UniqueFd peer{::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)};
};

// Counts how inferences ended.
struct Ends {
    std::atomic<int> lost{0};
    std::atomic<int> others{0};

    InferCallback callback() {
        return [this](const InferResult& result) {
            ++(result.error.kind() == ErrorKind::kConnectionLost ? lost : others);
        };
    }
};

TEST(ClientTest, CallsEndAtTheirDeadlineAndLateAnswersAreDropped) {
    SilentService service;
    const auto& client = service.client;
    EXPECT_EQ(client->queryTask(1, kShort).error().kind(), ErrorKind::kTimeout);
    KelmMsgRspQueryTaskStatus late = {};
    late.head.base.type = KELM_MESSAGE_QUERY_TASK_STATUS_RSP;
    late.head.base.size = sizeof(late);
    late.head.reqSeqNo = 1;
    service.send(late);
    const std::byte blob[10] = {};
    for (const Error& error :
         {client->queryTask(1, kShort).error(), client->registerClient("name", kShort),
          client->createGraph(blob, {}, kShort).error(), client->cancel(1, kShort).error(),
          client->infer({}, kShort).error}) {
        EXPECT_EQ(error.kind(), ErrorKind::kTimeout);
    }
    EXPECT_TRUE(client->isConnected());
}

TEST(ClientTest, RequestThatCannotBeWrittenHoldsNoCaller) {
    constexpr int kMoreThanTheSocketHolds = 2000;
    SilentService service;
    const auto& client = service.client;
    testing::internal::CaptureStderr();
    Ends ends;
    for (int i = 0; i < kMoreThanTheSocketHolds; ++i) {
        client->inferAsync({}, ends.callback(), {}, milliseconds(500));
    }
    // The first ones reach their deadline; then the stuck write is given up, and all else ends.
    EXPECT_TRUE(eventually([&] {
        return !client->isConnected() && ends.lost + ends.others == kMoreThanTheSocketHolds;
    }));
    EXPECT_EQ(client->registerClient("name").kind(), ErrorKind::kConnectionLost);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // the host's, not the library's
}

TEST(ClientTest, LostConnectionEndsEachPendingCallOnce) {
    constexpr int kCalls = 50;
    void (*const ways[])(SilentService&) = {
        [](auto& service) { service.peer.reset(); },
        [](auto& service) { service.send(KelmMsgBase{}); },  // nonsense
        [](auto& service) { service.client.reset(); },
    };
    for (const auto lose : ways) {
        SilentService service;
        auto& client = service.client;
        Ends ends;
        for (int i = 0; i < kCalls; ++i) client->inferAsync({}, ends.callback());
        auto future = client->inferAsync({});
        lose(service);
        EXPECT_EQ(future.get().error.kind(), ErrorKind::kConnectionLost);
        EXPECT_TRUE(eventually([&] { return ends.lost == kCalls; }));
        if (client) {
            EXPECT_EQ(client->infer({}).error.kind(), ErrorKind::kConnectionLost);
            EXPECT_EQ(client->queryTask(1).error().kind(), ErrorKind::kConnectionLost);
        }
        client.reset();
        EXPECT_EQ(ends.lost, kCalls);
        EXPECT_EQ(ends.others, 0);
    }
}

}  // namespace
}  // namespace kelm::client
