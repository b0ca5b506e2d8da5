#include "client/Client.h"

#include <sys/ioctl.h>

#include "fakes/ListenOn.h"
#include "protocol/src/KelmError.h"
#include "protocol/src/KelmMessage.h"
#include "utils/ShareMemory.h"

namespace kelm::client {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kShort{50};

template <class Record>
Record record(KelmMsgType type) {
    Record record{};
    auto& base = reinterpret_cast<KelmMsgBase&>(record);
    base.type = type;
    base.size = sizeof(record);
    return record;
}

// Listens where a service would, and neither reads nor answers unless told to.
struct SilentService {
    template <class Record>
    void send(const Record& record) {
        EXPECT_EQ(::send(peer.get(), &record, sizeof(record), MSG_NOSIGNAL),
                  static_cast<ssize_t>(sizeof(record)));
    }
    // About task 7, of the first inference.
    void accept(int32_t status = KELM_OK) {
        auto answer = record<KelmMsgRspInferTask>(KELM_MESSAGE_INFER_TASK_RSP);
        answer.head.reqSeqNo = 1;
        answer.head.status = status;
        answer.taskId = 7;
        send(answer);
    }

    const TempDir dir;
    const UniqueFd listener = listenOn(dir.path() + "/socket");
    std::unique_ptr<Client> client = Client::connect(dir.path() + "/socket").value();
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
    // An answer of another kind.
    auto future = std::async(std::launch::async, [&] { return client->registerClient("name"); });
    char request[sizeof(KelmMsgReqQueryTaskStatus) + sizeof(KelmMsgReqRegister)];
    ASSERT_EQ(::recv(service.peer.get(), request, sizeof(request), MSG_WAITALL),
              static_cast<ssize_t>(sizeof(request)));
    auto other = record<KelmMsgRspUnregister>(KELM_MESSAGE_UNREGISTER_RSP);
    other.reqSeqNo = 2;
    service.send(other);
    EXPECT_EQ(future.get().kind(), ErrorKind::kSystem);
    auto late = record<KelmMsgRspQueryTaskStatus>(KELM_MESSAGE_QUERY_TASK_STATUS_RSP);
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

TEST(ClientTest, StatusIsAskedForAsTheServiceAnswersIt) {
    SilentService service;
    EXPECT_EQ(service.client->queryStatus(StatusParts(uint64_t{0})).error().kind(),
              ErrorKind::kSystem);
    (void)service.client->queryStatus(StatusPart::kClients, kShort);
    KelmMsgReqQueryStatus request;
    ASSERT_GT(::recv(service.peer.get(), &request, sizeof(request), MSG_WAITALL), 0);
    EXPECT_EQ(request.queryType, 4U | 8U) << "rows of clients come beside those of graphs";
}

TEST(ClientTest, RequestThatCannotBeWrittenHoldsNoCaller) {
    constexpr int kMoreThanTheSocketHolds = 2000;
    SilentService service;
    const auto& client = service.client;
    testing::internal::CaptureStderr();
    Ends ends;
    for (int i = 0; i < kMoreThanTheSocketHolds; ++i) {
        client->inferAsync({}, ends.callback(), {}, 500ms);
    }
    // The first ones reach their deadline; then the stuck write is given up, and all else ends.
    EXPECT_TRUE(eventually([&] {
        return !client->isConnected() && ends.lost + ends.others == kMoreThanTheSocketHolds;
    }));
    EXPECT_EQ(client->registerClient("name").kind(), ErrorKind::kConnectionLost);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // the host's, not the library's
}

TEST(ClientTest, NonsenseEndsAWriteThatTheServiceDoesNotRead) {
    SilentService service;
    Ends ends;
    std::thread writer([&] {
        while (service.client->isConnected()) {
            service.client->inferAsync({}, ends.callback(), {}, 10min);
        }
    });
    EXPECT_TRUE(eventually([&] {
        int unread = 0;
        return ::ioctl(service.peer.get(), FIONREAD, &unread) == 0 && unread > 65536;
    }));
    service.send(KelmMsgBase{});
    writer.join();
    EXPECT_EQ(ends.others, 0);
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

TEST(ClientTest, SlotOfATimedOutTaskIsKeptUntilTheTaskHasEnded) {
    const struct {
        const char* end;
        void (*tell)(SilentService&);
        bool isUsedAgain;
    } rows[] = {
        {"done",
         [](auto& service) {
             auto event = record<KelmMsgEvtTaskDone>(KELM_MESSAGE_TASK_DONE_EVT);
             event.reqSeqNo = 1;
             service.send(event);
         },
         true},
        {"refused", [](auto& service) { service.accept(KELM_ERROR_TOO_MANY_TASK); }, true},
        {"canceled, by a call that has timed out",
         [](auto& service) {
             service.accept();
             auto answer = record<KelmMsgRspCancelTask>(KELM_MESSAGE_CANCEL_TASK_RSP);
             answer.taskId = 7;
             answer.canceled = 1;
             service.send(answer);
         },
         true},
        {"lost", [](auto& service) { service.peer.reset(); }, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.end);
        SilentService service;
        TensorPool pool(16, 16, 2);
        auto late = pool.acquire().value();
        InferRequest request{.input = late->inputTensor(), .output = late->outputTensor()};
        const std::string name = late->outputTensor().name;
        EXPECT_EQ(service.client->infer(request, kShort).error.kind(), ErrorKind::kTimeout);
        EXPECT_EQ(service.client->infer(request, kShort).error.kind(), ErrorKind::kBusy);
        request = {};
        late.reset();
        // The next caller's.
        const auto next = pool.acquire().value();
        ShareMemory services;
        void* const output = services.open(name.c_str(), 16);
        ASSERT_NE(output, nullptr);
        std::memset(output, 0xff, 16);
        EXPECT_THAT(next->output(), Each(std::byte{0}));
        EXPECT_EQ(pool.acquire().error().kind(), ErrorKind::kBusy);
        row.tell(service);
        ASSERT_TRUE(eventually([&] {
            const auto slot = pool.acquire();
            return slot && (slot.value()->outputTensor().name == name) == row.isUsedAgain;
        }));
        EXPECT_EQ(::access(("/dev/shm" + name).c_str(), F_OK) == 0, row.isUsedAgain);
    }
}

}  // namespace
}  // namespace kelm::client
