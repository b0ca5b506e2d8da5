#include <nlohmann/json.hpp>

#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"
#include "system/CommandProcess.h"
#include "tests/wire/LoadClient.h"
#include "utils/ThreadUtils.h"

namespace kelm {
namespace {

class ServiceTraceTest : public SystemFixture {
 protected:
    // How often each name is in the tasks file by now.
    std::map<std::string, int> countNames() const {
        std::map<std::string, int> names;
        std::ifstream file(m_tasks);
        std::string line;
        std::getline(file, line);  // the header
        while (std::getline(file, line)) ++names[line.substr(0, line.find(','))];
        return names;
    }

    uint64_t runOneTask() {
        WireClient client(path(), "last");
        const uint64_t graph = client.createGraph({"a graph of its own"}).graphId;
        const uint64_t task = client.ask<KelmMsgRspInferTask>(client.makeInfer(graph)).taskId;
        (void)client.receiveType(KELM_MESSAGE_TASK_DONE_EVT);
        if (client.destroyGraph(graph) == KELM_OK) ++m_destroyed;
        return task;
    }

    // One wants no answers, one cancels, one hangs up: all in the middle of it.
    void runOddClients() {
        constexpr int kTasks = 30;
        WireClient canceling(path(), "canceling");
        WireClient silent(path(), "silent");
        WireClient vanishing(path(), "vanishing");
        for (WireClient* client : {&silent, &canceling, &vanishing}) {
            auto request = client->makeInfer(client->createGraph({"of the odd ones"}).graphId);
            request.head.needResponse = client == &silent ? 0 : 1;
            ASSERT_EQ(client->flood(request, kTasks), kTasks);
        }
        const uint64_t first = canceling.receive<KelmMsgRspInferTask>().taskId;
        for (uint64_t ahead = 0; ahead < kTasks; ++ahead) (void)canceling.cancelTask(first + ahead);
    }

    TempDir m_directory;
    uint64_t m_destroyed = 0;
    std::string m_tasks;
};

TEST_F(ServiceTraceTest, TasksAndGraphsThatEndInAnyWayCloseTheirTraces) {
    start(2, R"("server_max_task_number": 4}, "debug_settings": {"enable_tracer": true)",
          {"TMPDIR=" + m_directory.path()});
    const std::string process = m_directory.path() + "/kelm-" + std::to_string(service().pid());
    const std::string host = "-hostname-" + ThreadUtils::getHostname() + ".csv";
    const std::string frames = process + "-frames" + host;
    m_tasks = process + "-tasks" + host;
    Load load;
    for (const uint16_t version : {1, 2}) {
        load.start(path(), {.apiMajorVersion = version, .count = 200, .depth = 24});
    }
    EXPECT_EQ(load.wait(), "");
    runOddClients();
    // Ids are given in order, so with the last one all are known.
    uint64_t last = 0;
    ASSERT_TRUE(eventually([&] { return (last = runOneTask()) != 0; }));
    EXPECT_TRUE(eventually([&] {
        const auto names = countNames();
        uint64_t id = 1;
        while (names.count("task_" + std::to_string(id)) > 0) ++id;
        return id > last;
    }));
    endService();  // the rows of the last moment are saved too

    const auto names = countNames();
    std::map<std::string, uint64_t> kinds;
    for (const auto& [name, count] : names) {
        EXPECT_EQ(count, 1) << name;
        std::string kind = name;
        std::erase_if(kind, [](char c) { return c >= '0' && c <= '9'; });
        ++kinds[kind];
    }
    EXPECT_EQ(kinds["task_"], last);
    EXPECT_GE(kinds["load_graph_"], 5U);
    EXPECT_EQ(kinds["unload_graph_"], m_destroyed);
    EXPECT_GE(kinds["load_graph__device_"], kinds["load_graph_"]);
    EXPECT_EQ(kinds["unload_graph__device_"], kinds["load_graph__device_"]);
    EXPECT_EQ(names.count("task_" + std::to_string(last) + "_inference"), 1U);
    const std::string json = m_directory.path() + "/trace.json";
    const ShellCommand command(KELM_CTL " trace " + frames + " " + m_tasks + " -o " + json +
                               " --threads " + service().dir() + "/thread.info --names " + process +
                               "-names" + host);
    EXPECT_THAT(command.output,
                HasSubstr("frames file: 0, only in the tasks file: 0, lines left out: 0"));
    const std::string drawn = nlohmann::json::parse(std::ifstream(json)).dump();
    EXPECT_THAT(drawn, HasSubstr("TaskManagerT0"));
    EXPECT_THAT(drawn, HasSubstr("task_" + std::to_string(last)));
    EXPECT_THAT(drawn, testing::ContainsRegex(
                           R"(\{"client":"[^"]+","device":"Fake[01]","graph":"[^"]+"\})"));
}

}  // namespace
}  // namespace kelm
