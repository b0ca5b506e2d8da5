#include <regex>

#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"

namespace kelm {
namespace {

class PrintingTest : public SystemFixture {
 protected:
    // A section of the configuration.
    static std::string printing(int intervalMs) {
        return R"("info_printer": {
            "client_fps": "on", "device_fps": "on", "service_fps": "on", "graph_fps": "on",
            "device_utilization": "on", "memory_usage": "on", "client_snapshot_mode": "base",
            "device_snapshot_mode": "Full", "graph_snapshot_mode": "base",
            "task_snapshot_mode": "base", "print_interval": )" +
               std::to_string(intervalMs) + "}";
    }
    // Passes whose last line is there.
    int64_t passes() const {
        const std::string log = service().log();
        const std::regex last("Service Memory Status");
        return std::distance(std::sregex_iterator(log.begin(), log.end(), last), {});
    }
};

TEST_F(PrintingTest, EachPartIsPrintedOnceAnInterval) {
    start(ServiceConfig::fakeDevices(2, 2) + R"(, "debug_settings": {)" + printing(1000) +
          R"(}, "scheduler_config": [{"subclass": 0, "graph_tag_map": {"kept": 1}}])");
    WireClient client(path(), "the client");
    const uint64_t graph = client.createGraph({"blob", "the graph"}).graphId;
    EXPECT_NE(client.createGraph({"another", "another", "kept"}).graphId, 0U);
    for (int i = 0; i < 40; ++i) ASSERT_TRUE(client.infers(graph));
    const auto begin = std::chrono::steady_clock::now();
    const int64_t before = passes();
    ASSERT_TRUE(eventually([&] { return passes() >= before + 3; })) << lastLines();
    const auto pauses = passes() - before - 1;
    EXPECT_GE(std::chrono::steady_clock::now() - begin, pauses * 500ms);
    endService();
    const std::string rate = R"([1-9]\d*\.\d\d)";
    for (const std::string& pattern :
         {"ServiceFps=" + rate, R"(\[the client\] = )" + rate,
          R"(\[Fake\d@the graph\]\.Fps = )" + rate,
          R"(\[the graph\] = \(in\) )" + rate + R"( \(out\) )" + rate,
          std::string(R"(VIRT = \d{4,}, RES = \d{4,}, SHR = \d{3,}, TOTAL = \d{5,}\n)"),
          std::string("TaskSnapshot\\(Regular\\)\n-{29} TS.Polling -{30}\nTime: "),
          std::string(R"(clientName +\| the client +\|\n.*\n\| inferTimes +\| 40 +\|)"),
          std::string(R"(graphName +\| the graph +\|)"),
          std::string(R"(scheduler +\|( (tag|squeeze) +\|){2}\n\| comment +\|.* kept )"),
          std::string("DeviceUtilization\\(count=2\\):")}) {
        EXPECT_TRUE(std::regex_search(service().log(), std::regex(pattern)))
            << pattern << lastLines();
    }
}

// Everything that can be printed is, with names that would end the line and command the terminal.
TEST_F(PrintingTest, NamesOfClientsAreNeitherLinesNorCommandsInTheLog) {
    const auto begin = std::chrono::steady_clock::now();
    start(ServiceConfig::fakeDevices(4, 30) + R"(,
        "scheduler_config": [{"subclass": 0, "stream_device_number": 1}],
        "log_level": {"log_process": "on", "log_debug": "on", "log_frequent": "on"},
        "debug_settings": {"dump_graph": "on", )" +
          printing(500) + R"(, "debug_process": {"message_dispatcher": "on", "client_manager": "on",
            "task_manager": "on", "task_scheduler": "on", "device_manager": "on",
            "device_scheduler": "on", "device": "on", "device_work_thread": "on",
            "graph_manager": "on", "result_dispatcher": "on", "change_operation": "on",
            "graph_mapper": "on", "info_printer": "on"}})");
    const std::string name = "\x1b]0;evil\x07\nFORGED \u00e9";
    WireClient client(path(), name);
    EXPECT_EQ(client.createGraph({.name = name, .path = name}).graphId, 0U);
    EXPECT_EQ(client.createGraph({"tagged", name, name}).graphId, 0U);
    EXPECT_NE(client.createGraph({"streamed", name, "", name}).graphId, 0U);
    const uint64_t graph = client.createGraph({"blob", name}).graphId;
    ASSERT_EQ(client.flood(client.makeInfer(graph), 60), 60);
    ASSERT_TRUE(service().waitLog("Client=" + std::string("\\x1b]0;evil"))) << lastLines();
    EXPECT_TRUE(client.unregister());
    WireClient half(path(), name);
    ASSERT_TRUE(half.sendBytes("half"));
    half.hangUp();
    ASSERT_TRUE(service().waitLog("failed, user=\\x1b]0;evil")) << lastLines();
    endService();
    const auto run = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(run, (passes() - 1) * 50ms);  // less than a second is short
    const std::string log = service().log();
    for (const char* raw : {"\x1b]", "\x07", "\nFORGED"}) {
        EXPECT_THAT(log, Not(HasSubstr(raw)));
    }
    EXPECT_THAT(log, HasSubstr("registered: clientName=\\x1b]0;evil\\x07\\x0aFORGED \u00e9"));
}

}  // namespace
}  // namespace kelm
