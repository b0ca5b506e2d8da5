#include <regex>

#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"

namespace kelm {
namespace {

class PrintingTest : public SystemFixture {
 protected:
    // Prints each part of the list every so often; `style` is that of the devices' table.
    void startPrinting(int intervalMs, const std::string& style) {
        start(ServiceConfig::fakeDevices(2, 2) + R"(, "debug_settings": {"info_printer": {
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

TEST_F(PrintingTest, EachPartIsPrintedOnceAnInterval) {
    constexpr int kTasks = 40;
    startPrinting(1000, "table");
    ASSERT_TRUE(waitPasses(1)) << lastLines();
    WireClient client(path(), "the client");
    const uint64_t graph = client.createGraph({"blob", "the graph"}).graphId;
    for (int i = 0; i < kTasks; ++i) ASSERT_TRUE(client.infers(graph));
    ASSERT_TRUE(waitPasses(passes() + 3)) << lastLines();
    const std::vector<double> begins = times("ServiceFps=");
    EXPECT_GE(begins.back() - begins.front(), 0.8 * static_cast<double>(begins.size() - 1));

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
             std::string(R"(clientName +\| the client +\|\n.*\n\| inferTimes +\| 40 +\|)"),
             std::string(R"(graphName +\| the graph +\|)"),
             std::string(R"(DeviceSnapshot\(subclass=0\):(\n[+|].*)*\n\| scheduler +)"
                         R"(\| squeeze +\| squeeze +\|)"),
             std::string(R"(\n\| resetTimes +\| 0 +\| 0 +\|)"),
         }) {
        EXPECT_TRUE(isInLog(pattern)) << pattern << lastLines();
    }
}

TEST_F(PrintingTest, ShortIntervalTakesNoCoreAndAnotherStyleMakesLists) {
    startPrinting(500, "Table");  // not the word for a table
    ASSERT_TRUE(waitPasses(1)) << lastLines();
    EXPECT_TRUE(isInLog(R"(\n\| +deviceId: \d+\()")) << lastLines();
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    const double before = processorTime();
    const size_t passesBefore = passes();
    ASSERT_TRUE(eventually([&] { return Clock::now() > begin + std::chrono::seconds(1); }));
    EXPECT_GT(passes(), passesBefore);
    const double elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
    EXPECT_LT(processorTime() - before, elapsed / 2);
}

// Everything that can be printed is, with names that would end the line and command the terminal.
TEST_F(PrintingTest, NamesOfClientsAreNeitherLinesNorCommandsInTheLog) {
    start(ServiceConfig::fakeDevices(4, 30) + R"(,
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
    WireClient client(path(), name);
    const auto create = [&](const std::string& tag, const std::string& stream,
                            const std::string& file) {
        return client.createGraph({"blob" + tag + stream, name, tag, stream, 0, file}).graphId;
    };
    EXPECT_EQ(create("", "", name), 0U);
    EXPECT_EQ(create(name, "", ""), 0U);
    EXPECT_NE(create("", name, ""), 0U);
    const uint64_t graph = create("", "", "");
    constexpr int kTasks = 60;
    ASSERT_EQ(client.flood(client.makeInfer(graph), kTasks), kTasks);
    ASSERT_TRUE(service().waitLog("Client=" + std::string("\\x1b]0;evil"))) << lastLines();
    EXPECT_TRUE(client.unregister());
    WireClient half(path(), name);
    ASSERT_TRUE(half.sendBytes("half"));
    half.hangUp();
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

}  // namespace
}  // namespace kelm
