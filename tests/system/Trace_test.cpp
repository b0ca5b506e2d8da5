#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"
#include "tests/wire/LoadClient.h"
#include "utils/ThreadUtils.h"

namespace kelm {
namespace {

class ServiceTraceTest : public SystemFixture {
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
        WireClient client(path(), "last");
        const uint64_t graph = client.createGraph({"a graph of its own"}).graphId;
        const uint64_t task = client.ask<KelmMsgRspInferTask>(client.makeInfer(graph)).taskId;
        (void)client.receiveType(KELM_MESSAGE_TASK_DONE_EVT);
        (void)client.destroyGraph(graph);
        return task;
    }

    // A client that wants no answers, one that cancels, one that hangs up: all in the middle of it.
    void runOddClients() {
        constexpr int kTasks = 30;
        WireClient silent(path(), "silent");
        WireClient canceling(path(), "canceling");
        WireClient vanishing(path(), "vanishing");
        for (WireClient* client : {&silent, &canceling, &vanishing}) {
            auto request = client->makeInfer(client->createGraph({"of the odd ones"}).graphId);
            request.head.needResponse = client == &silent ? 0 : 1;
            ASSERT_EQ(client->flood(request, kTasks), kTasks);
        }
        const auto answer = canceling.receiveType(KELM_MESSAGE_INFER_TASK_RSP);
        ASSERT_TRUE(answer.has_value());
        const uint64_t first = answer->as<KelmMsgRspInferTask>().taskId;
        for (uint64_t ahead = 0; ahead < kTasks; ++ahead) (void)canceling.cancelTask(first + ahead);
    }
    // Turns both files into one for viewers; returns its path. `options` are further arguments.
    std::string convert(const std::string& options, std::string* said = nullptr) const {
        const std::string json = m_directory.path() + "/trace.json";
        const std::string words = m_directory.path() + "/said";
        const std::string command =
            KELM_CTL " trace " + m_frames + " " + m_tasks + " -o " + json + options + " >" + words;
        EXPECT_EQ(std::system(command.c_str()), 0);
        std::ifstream file(words);
        if (said != nullptr) said->assign(std::istreambuf_iterator<char>(file), {});
        return json;
    }

    TempDir m_directory;
    int m_pid = 0;
    std::string m_frames;
    std::string m_tasks;
};

TEST_F(ServiceTraceTest, TaskThatEndsInAnyWayClosesItsTrace) {
    startTraced(2, R"("server_max_task_number": 4)");
    Load load;
    for (const uint16_t version : {1, 2}) {
        LoadPlan plan;
        plan.apiMajorVersion = version;
        plan.count = 200;
        plan.depth = 24;
        load.start(path(), plan);
    }
    EXPECT_EQ(load.wait(), "");
    EXPECT_GT(load.refused(), 0U);
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
    endService();  // the rows of the last moment are saved too

    const auto names = countNames();
    for (const auto& [name, count] : names) EXPECT_EQ(count, 1) << name;
    const std::string ofLast = "task_" + std::to_string(last) + "_inference";
    EXPECT_EQ(names.count(ofLast), 1U);
    std::string said;
    const std::string json = convert(" --threads " + service().dir() + "/thread.info", &said);
    EXPECT_THAT(said, ::testing::HasSubstr(std::to_string(names.size()) + " spans"));
    EXPECT_THAT(
        said, ::testing::HasSubstr("frames file: 0, only in the tasks file: 0, lines left out: 0"));
    std::set<std::string> threads;
    const auto trace = nlohmann::json::parse(std::ifstream(json));
    for (const auto& event : trace["traceEvents"]) {
        if (event["name"] == "thread_name") threads.insert(event["args"]["name"]);
    }
    EXPECT_THAT(threads, ::testing::Contains("TaskManagerT0"));
}

TEST_F(ServiceTraceTest, RowsAreWholeAndNoneIsLostOrDoubledUnderLoad) {
#ifdef NDEBUG
    constexpr uint64_t kTasks = 50000;
#else
    constexpr uint64_t kTasks = 10000;  // without optimisation all takes so much longer
#endif
    constexpr uint64_t kClients = 5;
    startTraced(0, "");
    Load load;
    LoadPlan plan;
    plan.count = kTasks / kClients;
    plan.depth = 40;
    for (uint64_t i = 0; i < kClients; ++i) load.start(path(), plan);
    ASSERT_EQ(load.wait(), "") << lastLines();
    ASSERT_EQ(load.done(), kTasks);
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

    const std::string json = convert("");
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

TEST_F(ServiceTraceTest, LoadsAndUnloadsOfGraphsAreTraced) {
    startTraced(0, "");
    ASSERT_NE(runOneTask(), 0U);
    ASSERT_NE(runOneTask(), 0U);
    endService();
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
