#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "system/ChildProcess.h"
#include "system/LoadClient.h"
#include "system/SystemFixture.h"
#include "utils/ThreadUtils.h"

namespace kelm {
namespace {

class TraceSystemTest : public SystemFixture {
 protected:
    void startTraced(int latencyMs, const std::string& settings) {
        start(latencyMs, settings + R"(}, "debug_settings": {"enable_tracer": true)",
              {"TMPDIR=" + m_directory.path()});
        m_pid = service().pid();
        const std::string process = "/kelm-" + std::to_string(m_pid) + "-";
        const std::string host = "-hostname-" + ThreadUtils::getHostname() + ".csv";
        m_frames = m_directory.path() + process + "frames" + host;
        m_tasks = m_directory.path() + process + "tasks" + host;
    }

    // How often each name is in the tasks file, as of now.
    std::map<std::string, int> countNames() const {
        std::map<std::string, int> names;
        std::ifstream file(m_tasks);
        std::string line;
        std::getline(file, line);  // the header
        while (std::getline(file, line)) ++names[line.substr(0, line.find(','))];
        return names;
    }

    // The fields that both files have, or what is wrong with the row of the tasks file.
    static std::string checkedRow(const std::string& line, const std::string& process) {
        std::vector<std::string> fields;
        std::istringstream text(line);
        for (std::string field; std::getline(text, field, ',');) fields.push_back(field);
        if (fields.size() != 5 || fields[3] != process) return "malformed: " + line;
        for (size_t i = 1; i < fields.size(); ++i) {
            if (fields[i].find_first_not_of("0123456789") != std::string::npos) {
                return "no number: " + line;
            }
        }
        if (std::stoull(fields[1]) > std::stoull(fields[2])) return "not closed: " + line;
        return fields[0] + "," + fields[1] + "," + fields[2];
    }

    uint64_t runOneTask() const {
        RawClient client(path());
        const uint64_t id = client.registerClient("last");
        const uint64_t graph = client.createGraph(id, "last", "a graph of its own");
        const auto answer = client.call<KelmMsgRspInferTask>(RawClient::inferRequest(id, graph, 1),
                                                             KELM_MESSAGE_INFER_TASK_RSP);
        (void)client.receiveType(KELM_MESSAGE_TASK_DONE_EVT);
        auto destroy =
            RawClient::request<KelmMsgReqDestroyGraph>(KELM_MESSAGE_DESTROY_GRAPH_REQ, 2);
        destroy.clientId = id;
        destroy.graphId = graph;
        (void)client.call<KelmMsgRsp>(destroy, KELM_MESSAGE_DESTROY_GRAPH_RSP);
        return answer.taskId;
    }

    void runLoad(uint16_t apiMajorVersion) {
        LoadPlan plan;
        plan.name = "load";
        plan.apiMajorVersion = apiMajorVersion;
        plan.count = 300;
        plan.depth = 24;
        EXPECT_EQ(LoadClient(path(), plan, m_board).run(), "");
    }

    // A client that wants no answers, one that cancels, one that hangs up: all in the middle of it.
    void runOddClients() {
        RawClient silent(path());
        RawClient canceling(path());
        RawClient vanishing(path());
        for (RawClient* client : {&silent, &canceling, &vanishing}) {
            const uint64_t id = client->registerClient("odd");
            const uint64_t graph = client->createGraph(id, "odd", "graph of the odd ones");
            for (uint64_t i = 1; i <= 30; ++i) {
                auto request = RawClient::inferRequest(id, graph, i);
                request.head.needResponse = client == &silent ? 0 : 1;
                ASSERT_TRUE(client->send(request));
            }
            if (client != &canceling) continue;
            const auto answer = client->receiveType(KELM_MESSAGE_INFER_TASK_RSP);
            ASSERT_TRUE(answer.has_value());
            auto cancel =
                RawClient::request<KelmMsgReqCancelTask>(KELM_MESSAGE_CANCEL_TASK_REQ, 31);
            cancel.clientId = id;
            for (uint64_t ahead = 0; ahead < 30; ++ahead) {
                cancel.taskId = answer->as<KelmMsgRspInferTask>().taskId + ahead;
                ASSERT_TRUE(client->send(cancel));
            }
            ASSERT_TRUE(client->receiveType(KELM_MESSAGE_CANCEL_TASK_RSP).has_value());
        }
    }

    TempDir m_directory;
    LoadBoard m_board;
    int m_pid = 0;
    std::string m_frames;
    std::string m_tasks;
};

TEST_F(TraceSystemTest, TaskThatEndsInAnyWayLeavesItsTraceOpen) {
    startTraced(2, R"("server_max_task_number": 4)");
    runLoad(1);
    runLoad(2);
    EXPECT_GT(m_board.refused, 0U);
    runOddClients();
    // Ids are given in order, so with the last one all are known.
    uint64_t last = 0;
    ASSERT_TRUE(eventually([&] { return (last = runOneTask()) != 0; }));
    EXPECT_TRUE(eventually([&] {
        const auto names = countNames();
        for (uint64_t id = 1; id <= last; ++id) {
            if (names.count("task_" + std::to_string(id)) == 0) return false;
        }
        return true;
    }));
    endService();

    uint64_t rows = 0;
    for (const auto& [name, count] : countNames()) {
        EXPECT_EQ(count, 1) << name;
        ++rows;
    }
    const std::string ofLast = "task_" + std::to_string(last) + "_inference";
    EXPECT_EQ(countNames().count(ofLast), 1U);
    const std::string json = m_directory.path() + "/trace.json";
    const std::string command = std::string(std::getenv("KELM_TEST_CTL")) + " trace " + m_frames +
                                " " + m_tasks + " -o " + json + " --threads " + service().dir() +
                                "/thread.info >" + m_directory.path() + "/said";
    ASSERT_EQ(std::system(command.c_str()), 0);
    std::stringstream said;
    said << std::ifstream(m_directory.path() + "/said").rdbuf();
    EXPECT_THAT(said.str(), ::testing::HasSubstr(std::to_string(rows) + " spans"));
    EXPECT_THAT(said.str(), ::testing::HasSubstr(
                                "frames file: 0, only in the tasks file: 0, lines left out: 0"));
    std::set<std::string> threads;
    const auto trace = nlohmann::json::parse(std::ifstream(json));
    for (const auto& event : trace["traceEvents"]) {
        if (event["name"] == "thread_name") threads.insert(event["args"]["name"]);
    }
    EXPECT_THAT(threads, ::testing::Contains("TaskManagerT0"));
}

TEST_F(TraceSystemTest, RowIsLostDoubledOrTornUnderLoad) {
#ifdef NDEBUG
    constexpr uint64_t kTasks = 100000;
#else
    constexpr uint64_t kTasks = 10000;  // without optimisation all takes so much longer
#endif
    constexpr uint64_t kClients = 5;
    startTraced(0, "");
    SharedMemory<LoadBoard> board;
    std::vector<ChildProcess> clients;
    for (uint64_t i = 0; i < kClients; ++i) {
        LoadPlan plan;
        plan.name = "load";
        plan.count = kTasks / kClients;
        plan.depth = 40;
        clients.emplace_back([&] { return LoadClient(path(), plan, *board).run(); });
    }
    for (ChildProcess& client : clients) EXPECT_EQ(client.wait(), "") << lastLines();
    ASSERT_EQ(board->done, kTasks);
    endService();

    std::multiset<std::string> rows;  // without process and thread, which the frames do not have
    std::ifstream tasks(m_tasks);
    std::string line;
    std::getline(tasks, line);
    EXPECT_EQ(line, "name,start_tsc.RDTSC,end_tsc,pid,tid");
    const std::string process = std::to_string(m_pid);
    while (std::getline(tasks, line)) rows.insert(checkedRow(line, process));
    std::map<std::string, int> names;
    for (const std::string& row : rows) ++names[row.substr(0, row.find(','))];
    for (uint64_t id = 1; id <= kTasks; ++id) {
        ASSERT_EQ(names["task_" + std::to_string(id)], 1) << id;
    }
    EXPECT_EQ(names.count("task_" + std::to_string(kTasks + 1)), 0U);

    std::ifstream frames(m_frames);
    std::getline(frames, line);
    EXPECT_EQ(line, "name,start_tsc.RDTSC,end_tsc");
    size_t framesLost = 0;
    while (std::getline(frames, line)) {
        const auto row = rows.find(line);
        if (row == rows.end()) ++framesLost;
        if (row != rows.end()) rows.erase(row);
    }
    EXPECT_EQ(framesLost, 0U);
    EXPECT_TRUE(rows.empty()) << *rows.begin();

    const std::string json = m_directory.path() + "/trace.json";
    ASSERT_EQ(std::system((std::string(std::getenv("KELM_TEST_CTL")) + " trace " + m_frames + " " +
                           m_tasks + " -o " + json + " >/dev/null")
                              .c_str()),
              0);
    std::map<std::string, int> ends = names;
    const auto takeEvent = [&](int, nlohmann::json::parse_event_t what, nlohmann::json& event) {
        if (what != nlohmann::json::parse_event_t::object_end || !event.contains("ph")) return true;
        const std::string phase = event["ph"];
        const std::string name = event["name"];
        if (phase == "b" || phase == "B" || phase == "X") --names[name];
        if (phase == "e" || phase == "E" || phase == "X") --ends[name];
        return false;  // it is not kept
    };
    EXPECT_TRUE(nlohmann::json::parse(std::ifstream(json), takeEvent).is_object());
    for (const auto* left : {&names, &ends}) {
        for (const auto& [name, count] : *left) EXPECT_EQ(count, 0) << name;
    }
}

TEST_F(TraceSystemTest, GraphWorkIsNotTraced) {
    startTraced(0, "");
    ASSERT_NE(runOneTask(), 0U);
    ASSERT_NE(runOneTask(), 0U);
    endService();  // the rows of the last moment are saved too
    std::map<std::string, int> kinds;
    for (const auto& [name, count] : countNames()) {
        std::string kind = name;
        std::erase_if(kind, [](char c) { return c >= '0' && c <= '9'; });
        kinds[kind] += count;
    }
    for (const char* kind : {"load_graph_", "unload_graph_", "task_", "task__inference"}) {
        EXPECT_EQ(kinds[kind], 2) << kind;
    }
    EXPECT_GE(kinds["load_graph__device_"], 2);
    EXPECT_EQ(kinds["unload_graph__device_"], kinds["load_graph__device_"]);
}

}  // namespace
}  // namespace kelm
