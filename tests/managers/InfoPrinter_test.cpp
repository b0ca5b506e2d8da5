#include "managers/InfoPrinter.h"

#include <atomic>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "fakes/FakeInfoCollector.h"
#include "fakes/TestRequest.h"
#include "managers/ManagersFixture.h"
#include "managers/ResultDispatcher.h"
#include "protocol/src/InfoPackage.h"
#include "protocol/src/KelmProtocol.h"
#include "reporting/MemoryInspector.h"
#include "reporting/PrintInfoListener.h"
#include "reporting/ReportPart.h"
#include "utils/Semaphore.h"

namespace kelm {

namespace {

using namespace std::chrono_literals;

KelmMsgReqQueryStatus makeQuery(uint64_t clientId, uint64_t queryType, uint64_t sequence = 1) {
    auto query = RawClient::request<KelmMsgReqQueryStatus>(KELM_MESSAGE_QUERY_STATUS_REQ, sequence);
    query.clientId = clientId;
    query.queryType = queryType;
    return query;
}

// A client with a graph of which some tasks are done.
class BusyClient {
 public:
    explicit BusyClient(const RunningService& service)
        : m_raw(service.path()),
          m_id(m_raw.registerClient("watcher")),
          m_graph(m_raw.createGraph(m_id, "net", "a blob")) {
        for (uint64_t sequence = 1; sequence <= kTasks; ++sequence) {
            EXPECT_TRUE(m_raw.send(RawClient::inferRequest(m_id, m_graph, sequence)));
        }
        for (uint64_t i = 0; i < kTasks; ++i) {
            EXPECT_TRUE(m_raw.receiveType(KELM_MESSAGE_TASK_DONE_EVT));
        }
    }

    static constexpr uint64_t kTasks = 20;
    uint64_t id() const { return m_id; }
    uint64_t graph() const { return m_graph; }
    RawClient& raw() { return m_raw; }
    KelmMsgRspQueryStatus query(uint64_t queryType) {
        return m_raw.call<KelmMsgRspQueryStatus>(makeQuery(m_id, queryType),
                                                 KELM_MESSAGE_QUERY_STATUS_RSP);
    }

 private:
    RawClient m_raw;
    const uint64_t m_id;
    const uint64_t m_graph;
};

struct Counter : PrintInfoListener {
    void onPrintInfo() override { ++calls; }
    std::atomic<int> calls{0};
};

struct Thrower : PrintInfoListener {
    void onPrintInfo() override { throw std::runtime_error("no figures"); }
};

struct Sleeper : PrintInfoListener {
    void onPrintInfo() override {
        entered.post();
        wakeUp.wait();
    }
    Semaphore entered{0, 0};
    Semaphore wakeUp{0, 0};
};

// A printer without a service, with an interval that is cut to 0 seconds.
class LonePrinter {
 public:
    LonePrinter() {
        const std::string config =
            R"({"debug_settings": {"info_printer": {"print_interval": 500}}})";
        ServiceConfigParser::instance().appendConfigFile(m_dir.write("config", config), true);
        m_printer.emplace();
    }
    InfoPrinter* operator->() { return &*m_printer; }

 private:
    TempDir m_dir;
    std::optional<InfoPrinter> m_printer;
};

}  // namespace

TEST(InfoPrinterTest, EachBitFillsItsSectionsAndNoOther) {
    RunningService service;
    BusyClient client(service);
    const struct {
        uint64_t type;
        bool service, devices, details, graphs, clients, clientRows, schedulers;
    } rows[] = {
        {1, true, true, false, true, true, true, false},
        {2, false, true, true, false, false, false, false},
        {4, false, false, false, true, false, false, false},
        {8, false, false, false, false, true, false, false},  // rows go by the number of graphs
        {12, false, false, false, true, true, true, false},
        {16, false, false, false, false, false, false, true},
        {31 | 64, true, true, true, true, true, true, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.type);
        const KelmMsgRspQueryStatus status = client.query(row.type);
        EXPECT_EQ(status.head.status, KELM_OK);
        EXPECT_EQ(status.head.clientId, client.id());
        EXPECT_EQ(status.queryType, row.type);
        EXPECT_EQ(status.serviceFps > 0.0f, row.service);
        EXPECT_EQ(status.deviceNum, row.devices ? 2 : 0);
        EXPECT_STREQ(status.deviceName[1], row.devices ? "Fake1" : "");
        const std::set<std::string> onDevices{status.deviceGraphName[0], status.deviceGraphName[1]};
        EXPECT_EQ(onDevices.count("net"), row.details ? 1u : 0u);
        EXPECT_EQ(status.deviceThermal[0] > 0.0f, row.details);
        EXPECT_EQ(status.graphNum, row.graphs ? 1 : 0);
        EXPECT_STREQ(status.graphName[0], row.graphs ? "net" : "");
        EXPECT_EQ(status.graphFpsIn[0] > 0.0f, row.graphs);
        EXPECT_EQ(status.graphFpsOut[0] > 0.0f, row.graphs);
        EXPECT_EQ(status.clientNum, row.clients ? 1 : 0);
        EXPECT_STREQ(status.clientName[0], row.clientRows ? "watcher" : "");
        EXPECT_EQ(status.clientFps[0] > 0.0f, row.clientRows);
        EXPECT_EQ(status.deviceSchedulerName[0] != '\0', row.schedulers);
        EXPECT_EQ(status.taskSchedulerName[0] != '\0', row.schedulers);
    }
}

TEST(InfoPrinterTest, QueryWithoutAKnownBitIsReleasedAndNotAnswered) {
    RunningService service;
    RawClient client(service.path());
    const uint64_t id = client.registerClient("watcher");
    for (const uint64_t type : {0, 32}) ASSERT_TRUE(client.send(makeQuery(id, type)));
    auto silent = makeQuery(id, 31);
    silent.head.needResponse = 0;
    ASSERT_TRUE(client.send(silent));
    ASSERT_TRUE(client.send(makeQuery(0, 16)));  // who has not registered may ask, too
    const auto answer = client.receive();
    ASSERT_TRUE(answer);
    ASSERT_EQ(answer->type(), KELM_MESSAGE_QUERY_STATUS_RSP);
    EXPECT_EQ(answer->as<KelmMsgRspQueryStatus>().queryType, 16u);
}

TEST(InfoPrinterTest, BurstOfQueriesIsAnsweredOnceEach) {
    RunningService service;
    RawClient client(service.path());
    const uint64_t id = client.registerClient("watcher");
    constexpr uint64_t kQueries = 300;
    for (uint64_t sequence = 1; sequence <= kQueries; ++sequence) {
        ASSERT_TRUE(client.send(makeQuery(id, 1 + sequence % 31, sequence)));
    }
    std::set<uint64_t> answered;
    while (answered.size() < kQueries) {
        const auto answer = client.receive();
        ASSERT_TRUE(answer);
        ASSERT_EQ(answer->type(), KELM_MESSAGE_QUERY_STATUS_RSP);
        EXPECT_TRUE(answered.insert(answer->as<KelmMsgRsp>().reqSeqNo).second) << "told twice";
    }
    EXPECT_EQ(client.unregisterClient(id), KELM_OK);  // the next message: nothing else was sent
}

TEST(InfoPrinterTest, AnswerCountsAllAndHasTheRowsThatFit) {
    RunningService service;
    RawClient client(service.path());
    const uint64_t id = client.registerClient("watcher");
    const auto status = std::make_shared<KelmStatus>();
    const std::string longName(600, 'n');
    for (int i = 0; i < 40; ++i) {
        status->deviceNames.push_back(longName);
        status->deviceFps.push_back(1.0f);
        status->deviceGraphNames.push_back(longName);
        status->deviceThermals.push_back(2.0f);
        status->deviceIds.push_back(3);
        status->deviceSubclasses.push_back(4);
    }
    for (int i = 0; i < 70; ++i) {
        status->graphNames.push_back(longName);
        status->graphFpsIn.push_back(5.0f);
        status->clientNames.push_back(longName);
        status->clientFps.push_back(6.0f);
    }
    status->graphFpsOut = {7.0f};  // a manager that failed half-way
    ResultDispatcher::instance().enqueueSendQueryStatusResponse(
        status, makeRequest(KELM_MESSAGE_QUERY_STATUS_REQ, makeQuery(id, 31), -1));
    const auto message = client.receive();
    ASSERT_TRUE(message);
    const auto& answer = message->as<KelmMsgRspQueryStatus>();
    EXPECT_EQ(answer.deviceNum, 40);
    EXPECT_EQ(answer.graphNum, 70);
    EXPECT_EQ(answer.clientNum, 70);
    EXPECT_EQ(answer.deviceName[31], longName.substr(0, 31));
    EXPECT_EQ(answer.deviceFps[31], 1.0f);
    EXPECT_EQ(answer.deviceGraphName[31], longName.substr(0, 511));
    EXPECT_EQ(answer.deviceThermal[31], 2.0f);
    EXPECT_EQ(answer.deviceId[31], 3u);
    EXPECT_EQ(answer.deviceSubclass[31], 4);
    EXPECT_EQ(answer.graphName[63], longName.substr(0, 511));
    EXPECT_EQ(answer.graphFpsIn[63], 5.0f);
    EXPECT_EQ(answer.graphFpsOut[0], 7.0f);
    EXPECT_EQ(answer.graphFpsOut[1], 0.0f);
    EXPECT_EQ(answer.clientName[63], longName.substr(0, 31));
    EXPECT_EQ(answer.clientFps[63], 6.0f);
}

TEST(InfoPrinterTest, PackageTellsOfGraphsClientsAndMemory) {
    RunningService service;
    BusyClient client(service);
    RawClient tool(RunPaths::snapshotSocket());
    auto package = std::make_unique<InfoPackage>();
    ASSERT_TRUE(tool.readBytes(package.get(), sizeof(*package)));
    ASSERT_EQ(package->graphCount, 1);
    const InfoGraphRow& graph = package->graphs[0];
    EXPECT_EQ(graph.graphId, client.graph());
    EXPECT_STREQ(graph.graphName, "net");
    EXPECT_GE(graph.runningDeviceNum, 1);
    EXPECT_EQ(graph.inferenceTimes, BusyClient::kTasks);
    ASSERT_EQ(graph.clientNum, 1);
    EXPECT_STREQ(graph.clientNames[0], "watcher");
    ASSERT_EQ(package->clientCount, 1);
    const InfoClientRow& row = package->clients[0];
    EXPECT_EQ(row.clientId, client.id());
    EXPECT_STREQ(row.clientName, "watcher");
    EXPECT_EQ(row.apiMajorVersion, 2);
    EXPECT_EQ(row.inferenceTimes, BusyClient::kTasks);
    EXPECT_GT(package->memResMB, 0);
    EXPECT_GT(package->memVirtMB, package->memResMB);
    EXPECT_GT(package->memTotalMB, package->memResMB);
    EXPECT_GE(MemoryInspector::getPeakRSS() >> 20, package->memResMB / 2);

    std::vector<std::unique_ptr<RawClient>> crowd;
    for (int i = 0; i < 70; ++i) {
        crowd.push_back(std::make_unique<RawClient>(service.path()));
        ASSERT_NE(crowd.back()->registerClient("one of many"), 0u);
    }
    RawClient second(RunPaths::snapshotSocket());
    ASSERT_TRUE(second.readBytes(package.get(), sizeof(*package)));
    EXPECT_EQ(package->clientCount, kPackageClients);
    EXPECT_STREQ(package->clients[kPackageClients - 1].clientName, "one of many");
}

TEST(InfoPrinterTest, ManagerThatFailsReportsAllTheSame) {
    FakeInfoCollector collector;
    const ScopedPort<InfoCollector> port{collector};
    const auto fail = [](auto&...) { throw std::runtime_error("no figures"); };
    reportStatusPart(std::make_shared<KelmStatus>(), "status", fail);
    reportPackagePart("package", fail);
    EXPECT_EQ(collector.statusSources(), std::vector<std::string>{"status"});
    EXPECT_EQ(collector.packageSources(), std::vector<std::string>{"package"});
}

TEST(InfoPrinterTest, ListenersAreCalledInSpiteOfOneThatThrows) {
    Thrower thrower;
    Counter counter;
    LonePrinter printer;
    EXPECT_EQ(printer->getPrintIntervalMillisec(), 0);
    EXPECT_FALSE(printer->registerListener(nullptr));
    EXPECT_TRUE(printer->registerListener(&thrower));
    EXPECT_TRUE(printer->registerListener(&counter));
    EXPECT_FALSE(printer->registerListener(&counter));
    EXPECT_EQ(counter.calls.load(), 0) << "called before the start";
    printer->start();
    EXPECT_TRUE(eventually([&] { return counter.calls.load() >= 3; }));
    printer->unregisterListener(&counter);
    const int calls = counter.calls.load();
    EXPECT_TRUE(printer->stop());
    EXPECT_EQ(counter.calls.load(), calls);
}

TEST(InfoPrinterTest, StopIsBoundedWhileAListenerHangs) {
    Sleeper sleeper;
    LonePrinter printer;
    EXPECT_TRUE(printer->registerListener(&sleeper));
    printer->start();
    sleeper.entered.wait();
    EXPECT_FALSE(printer->stop());
    sleeper.wakeUp.post();
    EXPECT_TRUE(printer->stop());
}

}  // namespace kelm
