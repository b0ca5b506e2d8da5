#include <regex>

#include "system/LogTable.h"
#include "system/SystemFixture.h"

namespace kelm {
namespace {

class PrintingTest : public SystemFixture {
 protected:
    // Prints each part of the list every so often; `style` is that of the devices' table.
    void startPrinting(int intervalMs, const std::string& style) {
        startWith(fakeDevices(2, 2) + R"(, "debug_settings": {"info_printer": {
            "client_fps": "on", "device_fps": "on", "service_fps": "on", "graph_fps": "on",
            "device_utilization": "on", "memory_usage": "on", "client_snapshot_mode": "base",
            "device_snapshot_mode": "Full", "graph_snapshot_mode": "base",
            "task_snapshot_mode": "base", "device_snapshot_style": ")" +
                  style + R"(", "print_interval": )" + std::to_string(intervalMs) + "}}");
    }

    // When each line that begins so was printed, in seconds since the first one.
    std::vector<double> times(const std::string& words) const {
        const std::string log = service().log();
        const std::regex pattern(R"(\[(\d\d):(\d\d):(\d\d\.\d+)\]\[\d+\]I\[[^\]]*\] )" + words);
        std::vector<double> result;
        for (std::sregex_iterator at(log.begin(), log.end(), pattern), end; at != end; ++at) {
            const double second =
                std::stoi((*at)[1]) * 3600 + std::stoi((*at)[2]) * 60 + std::stod((*at)[3]);
            result.push_back(second);
        }
        for (double& second : result) second += second < result.front() ? 86400 : 0;  // midnight
        return result;
    }
    // Passes whose last line is there.
    size_t passes() const {
        const std::string log = service().log();
        size_t count = 0;
        for (size_t at = 0; (at = log.find("Service Memory Status", at)) != std::string::npos;
             ++at) {
            ++count;
        }
        return count;
    }
    bool waitPasses(size_t number) const {
        return eventually([&] { return passes() >= number; }, std::chrono::minutes(1));
    }
    bool isInLog(const std::string& pattern) const {
        return std::regex_search(service().log(), std::regex(pattern));
    }
};

TEST_F(PrintingTest, PartOfThePrintoutIsMissingOrWrong) {
    constexpr int kTasks = 40;
    startPrinting(1000, "table");
    ASSERT_TRUE(waitPasses(1)) << lastLines();
    RawClient client(path());
    const uint64_t id = client.registerClient("the client");
    const uint64_t graph = client.createGraph(id, "the graph", "blob");
    for (int i = 0; i < kTasks; ++i) ASSERT_TRUE(infers(client, id, graph));
    const std::string tasks = std::to_string(kTasks);
    ASSERT_TRUE(waitPasses(passes() + 3)) << lastLines();

    const std::string rate = R"([1-9]\d*\.\d\d)";
    for (const std::string& pattern : {
             "ServiceFps=" + rate + "\n",
             R"(ClientFps\(count=1\):\n \[the client\] = )" + rate + "\n",
             R"(GraphFps\(count=1\):\n \[the graph\] = \(in\) )" + rate + R"( \(out\) )" + rate,
             std::string(R"(DeviceFps\(count=2\):\n)"),
             R"(\n\[Fake[01]@the graph\]\.Fps = )" + rate + "\n",
             std::string(R"(\n\[Fake[01]@NoGraph\]\.Fps = 0\.0\n)"),
             std::string(R"(DeviceUtilization\(count=2\):\n\[Fake)"),
             std::string(R"(\n\[Fake[01]@the graph\] = \d+\.\d\d\n)"),
             std::string(R"(VIRT = \d{4,}, RES = \d{4,}, SHR = \d{3,}, TOTAL = \d{5,}\n)"),
             std::string("TaskSnapshot\\(Regular\\)\n-{29} TS.Polling -{30}\nTime: "),
             std::string("\nGraphName: \\[the graph\\]\n"),
             R"(\nTaskSnapshot costs \d+ ms\n)" + std::string(71, '-') + "\n",
         }) {
        EXPECT_TRUE(isInLog(pattern)) << pattern << lastLines();
    }
    const LogTable clients = LogTable::last(service().log(), "ClientSnapshot(RegularPrint):");
    EXPECT_EQ(clients.cell("clientId", 0), std::to_string(id));
    EXPECT_EQ(clients.cell("clientName", 0), "the client");
    EXPECT_EQ(clients.cell("inferTimes", 0), tasks);
    EXPECT_EQ(clients.cell("waitNum", 0), "0");
    const LogTable graphs = LogTable::last(service().log(), "GraphSnapshot(RegularPrint):");
    EXPECT_EQ(graphs.cell("graphId", 0), std::to_string(graph));
    EXPECT_EQ(graphs.cell("graphName", 0), "the graph");
    EXPECT_EQ(graphs.cell("inferTimes", 0), tasks);
    EXPECT_EQ(graphs.cell("waitTaskNum", 0), "0");
    EXPECT_EQ(graphs.cell("isPending", 0), "False");
    const LogTable devices = LogTable::last(service().log(), "DeviceSnapshot(subclass=0):");
    EXPECT_EQ(devices.columns(), 2U);
    EXPECT_EQ(devices.cell("scheduler", 0), "squeeze");
    EXPECT_EQ(devices.cell("resetTimes", 1), "0");

    const std::vector<double> begins = times("ServiceFps=");
    EXPECT_GE(begins.back() - begins.front(), 0.8 * static_cast<double>(begins.size() - 1));
}

// Everything that can be printed is, with names that would end the line and command the terminal.
TEST_F(PrintingTest, NamesOfClientsAreNeitherLinesNorCommandsInTheLog) {
    startWith(fakeDevices(4, 30) + R"(,
        "scheduler_config": [{"subclass": 0, "stream_device_number": 1}],
        "log_level": {"log_process": "on", "log_debug": "on", "log_frequent": "on"},
        "debug_settings": {"dump_graph": "on", "info_printer": {
            "print_interval": 500, "client_fps": "on", "device_fps": "on", "graph_fps": "on",
            "device_utilization": "on", "client_snapshot_mode": "base",
            "device_snapshot_mode": "full", "graph_snapshot_mode": "base",
            "task_snapshot_mode": "base"},
          "debug_process": {"message_dispatcher": "on", "client_manager": "on",
            "task_manager": "on", "task_scheduler": "on", "device_manager": "on",
            "device_scheduler": "on", "device": "on", "device_work_thread": "on",
            "graph_manager": "on", "result_dispatcher": "on", "change_operation": "on",
            "graph_mapper": "on", "info_printer": "on"}})");
    const std::string name = "\x1b]0;evil\x07\nFORGED \u00e9";
    RawClient client(path());
    const uint64_t id = client.registerClient(name.c_str());
    constexpr KelmMsgType kAnswer = KELM_MESSAGE_CREATE_GRAPH_RSP;
    const auto create = [&](auto field, const std::string& text) {
        auto request = RawClient::request<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ);
        request.clientId = id;
        text.copy(request.*field, sizeof(request.*field) - 1);
        name.copy(request.graphName, sizeof(request.graphName) - 1);
        const bool isPath = request.graphPath[0] != '\0';
        request.head.base.dataNum = isPath ? 0 : 1;
        request.head.base.dataSize[0] = text.size();
        return client.call<KelmMsgRspCreateGraph>(request, kAnswer, {}, isPath ? "" : text).graphId;
    };
    EXPECT_EQ(create(&KelmMsgReqCreateGraph::graphPath, name), 0U);
    EXPECT_EQ(create(&KelmMsgReqCreateGraph::graphTag, name), 0U);
    EXPECT_NE(create(&KelmMsgReqCreateGraph::streamId, name), 0U);
    const uint64_t graph = create(&KelmMsgReqCreateGraph::graphName, "any");
    constexpr int kTasks = 60;
    for (int i = 0; i < kTasks; ++i) {
        ASSERT_TRUE(client.send(RawClient::inferRequest(id, graph, 1)));
    }
    ASSERT_TRUE(service().waitLog("Client=" + std::string("\\x1b]0;evil"))) << lastLines();
    EXPECT_EQ(client.unregisterClient(id), KELM_OK);
    RawClient half(path());
    EXPECT_NE(half.registerClient(name.c_str()), 0U);
    ASSERT_TRUE(half.sendBytes("half", 4));
    half.close();
    ASSERT_TRUE(service().waitLog("failed, user=\\x1b]0;evil")) << lastLines();
    endService();
    const std::string log = service().log();
    for (const char* raw : {"\x1b]", "\x07", "\nFORGED"}) {
        const size_t at = log.find(raw);
        EXPECT_EQ(at, std::string::npos)
            << log.substr(at == std::string::npos ? 0 : log.rfind('[', at) - 60, 300);
    }
    EXPECT_NE(log.find("registered: clientName=\\x1b]0;evil\\x07\\x0aFORGED \u00e9"),
              std::string::npos);
    const std::string process = "client(id:1) is of process " + std::to_string(::getpid()) +
                                ", user " + std::to_string(::geteuid());
    EXPECT_NE(log.find(process), std::string::npos);
}

TEST_F(PrintingTest, ShortIntervalTakesACore) {
    startPrinting(500, "Table");  // not the word, which makes it a list
    ASSERT_TRUE(waitPasses(2)) << lastLines();
    EXPECT_TRUE(isInLog(R"(\n\| +deviceId: \d+\()")) << lastLines();
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    const double before = processorTime();
    const size_t passesBefore = passes();
    ASSERT_TRUE(eventually([&] { return Clock::now() > begin + std::chrono::seconds(2); }));
    EXPECT_GT(passes(), passesBefore);
    const double elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
    EXPECT_LT(processorTime() - before, elapsed / 2);
}

}  // namespace
}  // namespace kelm
