#include "fakes/ListenOn.h"
#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"
#include "kelm/kelm.hpp"

namespace kelm {
namespace {

using Millis = std::chrono::milliseconds;

// KELM_TEST_RESTARTS asks for more of them than a usual run has time for.
int restarts() {
    const char* wanted = std::getenv("KELM_TEST_RESTARTS");
    return wanted != nullptr ? std::atoi(wanted) : 6;
}

// Runs tasks on a graph, by calls and by callbacks in turn, and keeps account of their ends.
class Worker {
 public:
    static constexpr Millis kDeadline{3000};
    // Beyond the deadline: a machine that is busy with sanitizers.
    static constexpr Millis kPatience{10000};

    Worker(Graph& graph, Pool& pool, const std::atomic<bool>& stop)
        : m_thread([&] {
              while (!stop) {
                  call(graph, pool.acquire());
                  graph.start(pool.acquire(), {.deadline = kDeadline}, begin());
              }
              eventually([this] { return endedAll(); });
          }) {}

    void join() { m_thread.join(); }
    bool endedAll() const { return ended == m_started; }

    std::atomic<int> ended{0};
    std::atomic<int> good{0};
    std::atomic<int> late{0};
    std::atomic<int> unexpected{0};

 private:
    void call(Graph& graph, const Slot& slot) {
        const auto account = begin();
        auto task = Graph::makeTask(slot, {.deadline = kDeadline});
        auto result = detail::sized<kelm_result>();
        result.error = kelm_infer(graph.get(), &task, &result);
        account(result);
    }
    // Accounts for the end of a task that starts now.
    std::function<void(const kelm_result&)> begin() {
        ++m_started;
        return [this, begun = std::chrono::steady_clock::now()](const kelm_result& result) {
            if (std::chrono::steady_clock::now() - begun > kDeadline + kPatience) ++late;
            const std::set<int> usual{KELM_CONNECTION_LOST, KELM_EXPIRED, KELM_TIMEOUT};
            if (result.error == KELM_SUCCESS) {
                ++good;
            } else if (!usual.contains(result.error)) {
                ++unexpected;
            }
            ++ended;
        };
    }

    std::atomic<int> m_started{0};
    std::thread m_thread;
};

class ReconnectTest : public SystemFixture {
 protected:
    // Kills the service, or tells it to end, and starts it anew.
    void restart(bool kill) {
        if (kill) {
            service().signal(SIGKILL);
            (void)service().waitExit();
        } else {
            ASSERT_TRUE(service().stop(kTimeToEnd)) << lastLines();
        }
        service().start();
        ASSERT_TRUE(service().waitReady()) << lastLines();
    }
};

TEST_F(ReconnectTest, EachCallEndsOnceWhateverBecomesOfTheService) {
    start(1);
    std::atomic<int> ups{0};
    std::atomic<int> downs{0};
    Client client({.socketPath = path(), .reconnect = true, .onConnection = [&](bool up) {
                       ++(up ? ups : downs);
                   }});
    Graph first = client.load(std::as_bytes(std::span("first")), {.window = 6});
    const std::string file = service().files().write("second", "second");
    Graph second = client.loadFile(file);
    Pool pool = first.makePool(0, 4096);
    std::atomic<bool> stop{false};
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < 8; ++i) {
        workers.push_back(std::make_unique<Worker>(i % 2 == 0 ? first : second, pool, stop));
    }
    const auto good = [&] {
        int sum = 0;
        for (const auto& worker : workers) sum += worker->good;
        return sum;
    };
    for (int i = 1; i <= restarts(); ++i) {
        ASSERT_TRUE(eventually([&, before = good()] { return good() > before + 100; })) << i;
        ASSERT_NO_FATAL_FAILURE(restart(i % 3 != 0));
        ASSERT_TRUE(eventually([&] { return ups >= i; })) << i;
    }
    EXPECT_TRUE(eventually([&, before = good()] { return good() > before + 100; }));
    stop = true;
    for (const auto& worker : workers) {
        worker->join();
        EXPECT_TRUE(worker->endedAll());
        EXPECT_EQ(worker->late, 0);
        EXPECT_EQ(worker->unexpected, 0);
    }
    EXPECT_EQ(downs, ups);
    EXPECT_EQ(ups, restarts());
    // Registered once, with both graphs and no others.
    const Status status = client.status();
    EXPECT_EQ(status.info().client_count, 1U);
    EXPECT_EQ(status.info().graph_count, 2U);
}

TEST_F(ReconnectTest, CloseDoesNotWaitForAServiceThatDoesNotAnswer) {
    start(1);
    std::optional<Client> client;
    client.emplace(ClientOptions{.socketPath = path(), .reconnect = true});
    const UniqueFd silent = [&] {
        service().signal(SIGKILL);
        (void)service().waitExit();
        std::filesystem::remove(path());
        return listenOn(path());
    }();
    const UniqueFd peer(::accept4(silent.get(), nullptr, nullptr, SOCK_CLOEXEC));
    char request = 0;  // the client waits for its answer
    ASSERT_EQ(::recv(peer.get(), &request, 1, 0), 1);
    const auto before = std::chrono::steady_clock::now();
    client.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 8s);
}

// A service of the case's own, which takes each request and chooses what is answered, and when.
class ScriptedServiceTest : public ::testing::Test {
 protected:
    void connect(bool reconnect) {
        const ClientOptions options{.socketPath = m_path, .reconnect = reconnect};
        auto connected = startCalling([&] { m_client.emplace(options); });
        accept();
        connected.get();
    }
    void accept() {
        m_peer.reset();
        m_peer.emplace(WireClient::acceptFrom(m_listener.get()));
        answer(take<KelmMsgReqRegister>());
    }
    template <class Request = KelmMsgReqCreateGraph>
    KelmMsgReq take() const {
        return m_peer->receive<Request>().head;
    }
    void answer(const KelmMsgReq& request, uint64_t graphId = 0) {
        KelmMsgRspCreateGraph answer{};
        answer.head.base.type = static_cast<KelmMsgType>(request.base.type + 1);
        answer.head.base.size = graphId != 0 ? sizeof(answer) : sizeof(KelmMsgRsp);
        answer.head.reqSeqNo = request.reqSeqNo;
        answer.graphId = graphId;
        m_peer->sendBytes(&answer, answer.head.base.size);
    }
    auto load(Millis deadline = 10s) {
        const GraphOptions options{.window = 1, .deadline = deadline};
        return startCalling([=, this] { return m_client->loadServiceFile("/", options); });
    }
    void loadAs(uint64_t id) {
        auto loading = load();
        answer(take(), id);
        m_graphs.push_back(loading.get());
    }

    const TempDir m_dir;
    const std::string m_path = m_dir.path() + "/socket";
    const UniqueFd m_listener = listenOn(m_path);
    std::vector<Graph> m_graphs;
    std::optional<Client> m_client;
    std::optional<WireClient> m_peer;  // hangs up first
};

TEST_F(ScriptedServiceTest, LoadIsRepeatedIfItsTwinWasFreedMeanwhile) {
    connect(false);
    loadAs(7);
    auto second = load();
    const KelmMsgReq create = take();
    auto freeing = startCalling([&] { m_graphs.clear(); });
    const KelmMsgReq destroy = take<KelmMsgReqDestroyGraph>();
    answer(create, 7);
    EXPECT_FALSE(m_peer->canReceive(50ms));
    answer(destroy);
    answer(take(), 8);
    freeing.get();
    EXPECT_EQ(m_graphs.emplace_back(second.get()).info().id, 8U);
}

TEST_F(ScriptedServiceTest, GraphOfALoadThatHasTimedOutIsKeptForTheNextOrGivenUp) {
    connect(false);
    const auto timeOut = [&] {
        auto late = load(200ms);
        const KelmMsgReq create = take();
        EXPECT_THROW(late.get(), Error);
        return create;
    };
    const KelmMsgReq late = timeOut();
    auto next = load();
    const KelmMsgReq create = take();
    answer(late, 7);
    EXPECT_FALSE(m_peer->canReceive(50ms));
    answer(create, 7);
    m_graphs.push_back(next.get());
    answer(timeOut(), 8);
    answer(take<KelmMsgReqDestroyGraph>());
}

TEST_F(ScriptedServiceTest, GraphFreedWhileItIsReloadedIsNotTakenFromItsTwin) {
    connect(true);
    for (int i = 0; i < 2; ++i) loadAs(7);
    accept();
    answer(take(), 7);
    const KelmMsgReq create = take();
    m_graphs.pop_back();
    answer(create, 7);
    EXPECT_FALSE(m_peer->canReceive(300ms));
}

}  // namespace
}  // namespace kelm
