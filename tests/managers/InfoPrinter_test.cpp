#include "managers/InfoPrinter.h"

#include "fakes/FakeInfoCollector.h"
#include "managers/ManagersFixture.h"
#include "reporting/KelmStatus.h"
#include "reporting/PrintInfoListener.h"
#include "reporting/ReportPart.h"
#include "utils/Semaphore.h"

namespace kelm {
namespace {

using Status = KelmMsgRspQueryStatus;

using InfoPrinterTest = ManagersFixture;

constexpr uint64_t kTasks = 20;

// A part of the record, up to the next one, and the bits of which one fills it.
struct Section {
    size_t begin;
    uint64_t bits;
};
constexpr uint64_t kClientRows = 1 << 8;  // as many as those of graphs
constexpr Section kSections[] = {
    {offsetof(Status, serviceFps), 1},           {offsetof(Status, deviceNum), 1 | 2},
    {offsetof(Status, deviceGraphName), 2},      {offsetof(Status, graphNum), 1 | 4},
    {offsetof(Status, clientNum), 1 | 8},        {offsetof(Status, clientName), kClientRows},
    {offsetof(Status, deviceSchedulerName), 16}, {sizeof(Status), 0},
};

bool isUsed(const Status& status, const Section& section) {
    const auto* const bytes = reinterpret_cast<const char*>(&status);
    return std::any_of(bytes + section.begin, bytes + (&section)[1].begin,
                       [](char byte) { return byte != 0; });
}

TEST_F(InfoPrinterTest, EachBitFillsItsSectionsAndNoOther) {
    WireClient idle = startAndConnect("idle");
    WireClient busy = connect("busy");
    ASSERT_NE(idle.createGraph({"another blob", "of idle"}).graphId, 0U);
    const uint64_t graph = busy.createGraph({"a blob", "of busy"}).graphId;
    for (uint64_t i = 0; i < kTasks; ++i) EXPECT_TRUE(busy.infers(graph));
    for (const uint64_t bits : {0, 32}) {  // not answered
        ASSERT_TRUE(
            busy.send(busy.make<KelmMsgReqQueryStatus>(KELM_MESSAGE_QUERY_STATUS_REQ, bits)));
    }
    for (uint64_t bits = 1; bits < 32; ++bits) {
        SCOPED_TRACE(bits);
        const uint64_t query = bits | (bits == 31 ? 0 : 64);  // one that is unknown
        const Status status = busy.queryStatus(query);
        EXPECT_EQ(status.head.status, KELM_OK);
        EXPECT_EQ(status.head.clientId, busy.id());
        EXPECT_EQ(status.queryType, query);
        const bool clientRows = (bits & 1) != 0 || (bits & 12) == 12;
        const uint64_t filled = bits | (clientRows ? kClientRows : 0);
        for (const Section& section : std::span(kSections).first<std::size(kSections) - 1>()) {
            EXPECT_EQ(isUsed(status, section), (filled & section.bits) != 0) << section.begin;
        }
    }
    const Status all = busy.queryStatus(31);
    EXPECT_NE(all.deviceId[0], all.deviceId[1]);
    EXPECT_STREQ(all.deviceName[1], "Fake1");
    for (int i = 0; i < 2; ++i) {
        EXPECT_GT(all.deviceThermal[i], 0.0F);
        EXPECT_EQ(all.deviceFps[i] > 0.0F, std::string(all.deviceGraphName[i]) == "of busy");
        const bool isBusy = std::string(all.graphName[i]) == "of busy";
        EXPECT_EQ(all.graphFpsIn[i] > 0.0F, isBusy);
        EXPECT_EQ(all.graphFpsOut[i] > 0.0F, isBusy);
        EXPECT_EQ(all.clientFps[i] > 0.0F, std::string(all.clientName[i]) == "busy");
    }
    const auto package = readPackage();
    const bool isSecond = package->graphs[1].graphId == graph;
    const InfoGraphRow& row = package->graphs[isSecond ? 1 : 0];
    EXPECT_EQ(row.graphId, graph);
    EXPECT_GE(row.runningDeviceNum, 1);
    EXPECT_EQ(row.inferenceTimes, kTasks);
    EXPECT_STREQ(row.clientNames[0], "busy");
    for (const auto& told : std::span(package->clients).first<2>()) {
        EXPECT_EQ(told.apiMajorVersion, 2);
        EXPECT_EQ(told.inferenceTimes, told.clientId == busy.id() ? kTasks : 0);
    }
    EXPECT_GT(package->memVirtMB, package->memResMB);
    EXPECT_GT(package->memTotalMB, package->memResMB);
    EXPECT_STREQ(all.taskSchedulerName, "TS.Polling");
}

TEST_F(InfoPrinterTest, RecordsCountAllAndHaveTheRowsThatFit) {
    constexpr int kPeers = 70;
    constexpr int kDevices = 40;
    start(ServiceConfig::fakeDevices(kDevices, 1));
    std::vector<WireClient> peers;
    const std::string longName(600, 'n');
    for (int i = 0; i < kPeers; ++i) {
        peers.push_back(connect(i == 0 ? longName : "peer"));
        const std::string number = std::to_string(i);
        ASSERT_NE(peers.back().createGraph({number, "of " + number}).graphId, 0U) << i;
        ASSERT_NE(peers.back().createGraph({"of all", longName}).graphId, 0U);
    }
    const Status status = peers[0].queryStatus(31);
    EXPECT_EQ(status.deviceNum, kDevices);
    EXPECT_EQ(status.graphNum, kPeers + 1);
    EXPECT_EQ(status.clientNum, kPeers);
    EXPECT_NE(status.deviceId[kStatusDevices - 1], 0U);
    EXPECT_STREQ(status.clientName[0], longName.substr(0, 31).c_str());
    EXPECT_STREQ(status.clientName[kStatusClients - 1], "peer");
    std::set<std::string> graphs(std::begin(status.graphName), std::end(status.graphName));
    EXPECT_EQ(graphs.size(), static_cast<size_t>(kStatusGraphs));
    EXPECT_EQ(graphs.count(longName.substr(0, 511)), 1U);

    const auto package = readPackage();
    EXPECT_EQ(package->deviceCount, 0);
    EXPECT_NE(package->devices[kPackageDevices - 1].deviceId, 0U);
    EXPECT_EQ(package->graphCount, kPackageGraphs);
    EXPECT_EQ(package->clientCount, kPackageClients);
    EXPECT_STREQ(package->clients[kPackageClients - 1].clientName, "peer");
    for (const InfoGraphRow& graph : package->graphs) {
        EXPECT_EQ(graph.clientNum, graph.graphName[0] == 'n' ? kPackageClients : 1);
    }
}

TEST(ReportPartTest, ManagerThatFailsReportsAllTheSame) {
    FakeInfoCollector collector;
    const ScopedPort<InfoCollector> port{collector};
    const auto fail = [](auto&...) { throw std::runtime_error("no figures"); };
    reportStatusPart(std::make_shared<KelmStatus>(), "status", fail);
    reportPackagePart("package", fail);
    EXPECT_EQ(collector.statusSources(), std::vector<std::string>{"status"});
    EXPECT_EQ(collector.packageSources(), std::vector<std::string>{"package"});
}

struct Listener : PrintInfoListener {
    explicit Listener(std::function<void()> act) : action(std::move(act)) {}
    void onPrintInfo() override { action(); }
    std::function<void()> action;
};

TEST(LonePrinterTest, ListenersThatThrowOrHangHoldUpNeitherTheOthersNorTheStop) {
    const TempDir dir;
    const char* const config = R"({"debug_settings": {"info_printer": {"print_interval": 500}}})";
    ServiceConfigParser::instance().appendConfigFile(dir.write("config", config), true);
    InfoPrinter printer;
    EXPECT_EQ(printer.getPrintIntervalMillisec(), 0);  // cut to whole seconds
    std::atomic<int> calls{0};
    Semaphore wakeUp{0, 0};
    Listener thrower([] { throw std::runtime_error("no figures"); });
    Listener counter([&] { ++calls; });
    Listener left([] { ADD_FAILURE(); });
    Listener sleeper([&] {
        if (calls >= 3) wakeUp.wait();
    });
    for (Listener* listener : {&thrower, &counter, &left, &sleeper}) {
        EXPECT_TRUE(printer.registerListener(listener));
        EXPECT_FALSE(printer.registerListener(listener));
    }
    printer.unregisterListener(&left);
    printer.start();
    EXPECT_TRUE(eventually([&] { return calls >= 3; }));
    EXPECT_FALSE(printer.stop());
    wakeUp.post();
    EXPECT_TRUE(printer.stop());
    EXPECT_EQ(calls, 3);
}

}  // namespace
}  // namespace kelm
