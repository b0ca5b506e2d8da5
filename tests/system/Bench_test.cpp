#include <nlohmann/json.hpp>

#include "fakes/ListenOn.h"
#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"
#include "system/CommandProcess.h"

namespace kelm {
namespace {

// `kelmctl bench` as it has ended.
struct Bench {
    Bench(const TempDir& files, const std::string& arguments)
        : report(files.write("report.json", "")),
          command(KELM_CTL " bench --graph " + files.write("first", "a graph") + " --json " +
                  report + " " + arguments),
          json(nlohmann::json::parse(readText(report), nullptr, false)) {}

    const std::string report;
    const ShellCommand command;
    const nlohmann::json json;
};

// Takes one client and answers it as a service would, each inference with a status of its own.
class ScriptedService : public NonCopyable {
 public:
    static constexpr int32_t kStall = 1;  // all right, but half a second later
    static constexpr int32_t kClose = 2;
    // By the number of the inference, from 1.
    using Script = std::function<int32_t(int number)>;

    // The service has no room for tasks of `fullGraph`, an id: 2 for the first graph, 3 for the
    // second.
    explicit ScriptedService(Script script, uint64_t fullGraph = 0)
        : m_script(std::move(script)), m_fullGraph(fullGraph) {}
    ~ScriptedService() { m_thread.join(); }

    const TempDir& files() const { return m_files; }

 private:
    void serve() {
        WireClient peer = WireClient::acceptFrom(m_listener.get());
        uint64_t lastId = 0;
        for (int inferences = 0; const auto message = peer.receive();) {
            const auto& infer = message->as<KelmMsgReqInferTask>();
            const bool infers = message->type() == KELM_MESSAGE_INFER_TASK_REQ;
            int32_t status = infers ? m_script(++inferences) : KELM_OK;
            if (infers && infer.graphId == m_fullGraph) status = KELM_ERROR_TOO_MANY_TASK;
            if (status == kClose) return;
            if (status == kStall) {
                std::promise<void>().get_future().wait_for(500ms);
                status = KELM_OK;
            }
            KelmMsgRspCreateGraph answer{};
            answer.head.reqSeqNo = infer.head.reqSeqNo;
            answer.head.status = status;
            answer.inputBufferSize = answer.outputBufferSize = 64;
            answer.graphId = ++lastId;  // or the task's, or the client's
            send(peer, message->type() + 1, answer.head.base);
            if (!infers || status != KELM_OK) continue;
            KelmMsgEvtTaskDone done{};
            done.reqSeqNo = infer.head.reqSeqNo;
            done.taskId = answer.graphId;
            send(peer, KELM_MESSAGE_TASK_DONE_EVT, done.head.base);
        }
    }
    // As much of a record as its type has.
    static void send(WireClient& peer, uint32_t type, KelmMsgBase& record) {
        record.type = type;
        record.size = KelmMessageSize[type];
        (void)peer.sendBytes(&record, record.size);
    }

    const TempDir m_files;
    const ScopedEnv m_runDir{"KELM_RUN_DIR", m_files.path()};
    const UniqueFd m_listener = listenOn(m_files.path() + "/kelm_service.sock");
    const Script m_script;
    const uint64_t m_fullGraph;
    std::thread m_thread{[this] { serve(); }};
};

TEST(BenchTest, ErrorsAndRefusalsAreToldApart) {
    const auto thirdFails = [](int n) { return n % 3 == 0 ? KELM_ERROR_DEVICE_FAILED : KELM_OK; };
    const auto fiveRefused = [](int n) { return n < 6 ? KELM_ERROR_TOO_MANY_TASK : KELM_OK; };
    struct Row {
        const char* arguments;
        ScriptedService::Script script;
        int status;
        uint64_t requests, errors, refused, givenUp;  // refused: at least so many
        const char* words;
    };
    const Row rows[] = {
        {"--count 30 --depth 4", [](int) { return KELM_OK; }, 0, 30, 0, 0, 0, "fairness"},
        {"--count 30 --depth 4", thirdFails, 1, 30, 10, 0, 0, "10 calls failed, --max-errors"},
        {"--count 30 --max-errors 9", thirdFails, 1, 30, 10, 0, 0, "lets 9 pass"},
        {"--count 30 --max-errors 10", thirdFails, 0, 30, 10, 0, 0, "FAILED: 10"},
        {"--count 10 --depth 1", fiveRefused, 0, 10, 0, 5, 0, "refused 5 times"},
        {"--count 9", [](int) { return KELM_ERROR_DEVICE_FAILED; }, 1, 9, 9, 0, 0,
         "nothing was measured: every request failed: 9 KELM_ERROR_DEVICE_FAILED"},
        {"--rate 50 --seconds 0.2 --depth 1", [](int) { return KELM_ERROR_TOO_MANY_TASK; }, 1, 10,
         0, 5, 10, "nothing was measured: the service refused every request"},
        {"--count 9 --depth 1", [](int n) { return n < 5 ? 0 : ScriptedService::kClose; }, 1, 5, 1,
         0, 0, "client 0 failed: the connection"}};
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.arguments) + ": " + row.words);
        const ScriptedService service(row.script);
        const Bench bench(service.files(),
                          "--clients 1 --graph-by-path " + std::string(row.arguments));
        EXPECT_EQ(bench.command.status, row.status);
        EXPECT_THAT(bench.command.output, HasSubstr(row.words));
        const auto& all = bench.json["all"];
        uint64_t errors = 0;
        for (const auto& count : all["errors"]) errors += count.get<uint64_t>();
        EXPECT_EQ(all["requests"], row.requests);
        EXPECT_EQ(errors, row.errors);
        EXPECT_GE(all["refused"], row.refused);
        EXPECT_EQ(all["given_up"], row.givenUp);
        // The five waits of one request are longer than 0.5, 1, 2, 4 and 8 ms, and belong to it.
        if (row.refused > 0) {
            EXPECT_GT(all["result"]["max_ms"], 15.5);
        }
    }
}

TEST(BenchTest, StallIsInTheLatencyOfAllThatWasDueInIt) {
    const ScriptedService service(
        [](int n) { return n == 20 ? ScriptedService::kStall : KELM_OK; });
    const Bench bench(service.files(),
                      "--clients 1 --graph-by-path --depth 1 --rate 100 --seconds 1");
    EXPECT_EQ(bench.command.status, 0) << bench.command.output;
    const auto& all = bench.json["all"];
    EXPECT_EQ(all["requests"], 100);
    EXPECT_EQ(all["result"]["count"], 100);
    int slow = 0;
    for (const auto& bucket : all["result"]["histogram_ns"]) {
        if (bucket[0] > 100'000'000) slow += bucket[1].get<int>();
    }
    EXPECT_GE(slow, 39);
    EXPECT_GE(all["late"], 39);
}

TEST(BenchTest, GraphThatMakesNoProgressKeepsNoPlaceOfAnother) {
    const ScriptedService service([](int) { return KELM_OK; }, 3);
    const Bench bench(service.files(),
                      "--clients 1 --graph-by-path --graph /dev/null --depth 1,2 --seconds 0.3");
    EXPECT_EQ(bench.command.status, 0) << bench.command.output;
    EXPECT_GT(bench.json["graphs"][0]["result"]["count"], 20);
    EXPECT_EQ(bench.json["graphs"][1]["given_up"], 2);
}

class BenchOnDevicesTest : public SystemFixture {
 protected:
    Bench bench(const std::string& arguments) {
        service().useRunDir();
        const std::string second = service().files().write("second", "second graph");
        return {service().files(), arguments + " --graph " + second};
    }
};

TEST_F(BenchOnDevicesTest, ReportAddsUp) {
    constexpr uint64_t kCount = 400;
    start(1, R"("server_max_task_number": 10)");  // some are refused
    const Bench run = bench("--clients 4 --depth 12 --count 400 --warmup 0.05 --weights 3,1");
    EXPECT_EQ(run.command.status, 0) << run.command.output;
    using Sums = std::pair<uint64_t, uint64_t>;  // of requests and of refusals
    const auto add = [](const nlohmann::json& rows) {
        Sums sums;
        for (const auto& row : rows) {
            EXPECT_EQ(row["result"]["count"], row["requests"]);
            sums.first += row["requests"].get<uint64_t>();
            sums.second += row["refused"].get<uint64_t>();
        }
        return sums;
    };
    const Sums sums = add(run.json["graphs"]);
    EXPECT_EQ(sums.first, 4 * kCount);
    EXPECT_GT(sums.second, 0U);
    EXPECT_EQ(add(run.json["clients"]), sums);
    for (const auto& client : run.json["clients"]) {
        EXPECT_EQ(add(client["graphs"]).first, kCount);
        EXPECT_NEAR(client["graphs"][0]["requests"], kCount * 3 / 4, 1);
    }
}

TEST_F(BenchOnDevicesTest, AssignedClientsUseOneGraphEach) {
    start(1);
    const Bench assigned = bench("--assign --clients 3 --count 20");
    EXPECT_EQ(assigned.command.status, 0) << assigned.command.output;
    for (size_t i = 0; i < 3; ++i) {
        const auto& graphs = assigned.json["clients"][i]["graphs"];
        EXPECT_EQ(graphs[i % 2]["requests"], 20);
        EXPECT_EQ(graphs[1 - i % 2]["requests"], 0);
    }
}

TEST_F(BenchOnDevicesTest, SearchFindsARateOrTellsThatThereIsNone) {
    start(5);
    const std::string search = "--clients 1 --find-rate --seconds 0.2 --warmup 0.05 --p99 ";
    const Bench found = bench(search + "300");
    EXPECT_EQ(found.command.status, 0) << found.command.output;
    for (const auto& step : found.json["find_rate"]["steps"]) {
        const double p99 = step["result"]["p99_ms"];
        EXPECT_EQ(step["held"], p99 <= 300.0 && step["given_up"] == 0) << step;
    }
    const Bench none = bench(search + "0.5");
    EXPECT_EQ(none.command.status, 1);
    EXPECT_TRUE(none.json["find_rate"]["found_per_second"].is_null());
    const Bench unstable = bench("--clients 1 --until-stable 0.03 --window 0.01 --depth 1");
    EXPECT_EQ(unstable.json["stability"]["stable"], false) << unstable.command.output;
}

}  // namespace
}  // namespace kelm
