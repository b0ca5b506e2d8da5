#include <nlohmann/json.hpp>

#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"

namespace kelm {
namespace {

using ::testing::HasSubstr;

class KelmctlTest : public SystemFixture {
 protected:
    // Returns the exit status.
    int run(const std::string& arguments) {
        service().useRunDir();
        const std::string file = service().dir() + "/output";
        const int status = std::system((KELM_CTL " " + arguments + " >" + file + " 2>&1").c_str());
        std::ostringstream output;
        output << std::ifstream(file).rdbuf();
        m_output = output.str();
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string m_output;
};

TEST_F(KelmctlTest, InferenceWritesItsOutputOrTellsItsFailure) {
    start(0);
    const TempDir& files = service().files();
    const std::string output = files.path() + "/result";
    files.write("graph", "a graph");
    const auto infer = [&](const std::string& graph, size_t inputSize) {
        return run("infer --graph " + files.path() + "/" + graph + " --input " +
                   files.write("input", std::string(inputSize, 'i')) + " --output " + output);
    };
    EXPECT_EQ(infer("graph", 36000), 0) << m_output;
    EXPECT_EQ(std::filesystem::file_size(output), 4000U);
    EXPECT_EQ(infer("missing", 36000), 1);
    EXPECT_THAT(m_output, HasSubstr("missing"));
    EXPECT_EQ(infer("graph", 36001), 1);
    EXPECT_THAT(m_output, HasSubstr("36001"));
}

TEST_F(KelmctlTest, BenchReportAddsUp) {
    constexpr uint64_t kCount = 400;
    start(1, R"("server_max_task_number": 10)");  // some are refused
    const TempDir& files = service().files();
    const std::string report = files.path() + "/report.json";
    EXPECT_EQ(run("bench --clients 4 --depth 12 --count " + std::to_string(kCount) + " --graph " +
                  files.write("first", "first graph") + " --graph " +
                  files.write("second", "second graph") + " --weights 3,1 --json " + report),
              0)
        << m_output;
    const auto json = nlohmann::json::parse(std::ifstream(report));
    using Sums = std::pair<uint64_t, uint64_t>;  // of requests and of errors
    const auto add = [](const nlohmann::json& rows) {
        Sums sums;
        for (const auto& row : rows) {
            uint64_t failed = 0;
            for (const auto& count : row["errors"]) failed += count.get<uint64_t>();
            EXPECT_EQ(row["result"]["count"].get<uint64_t>() + failed, row["requests"]);
            sums.first += row["requests"].get<uint64_t>();
            sums.second += failed;
        }
        return sums;
    };
    const Sums sums = add(json["graphs"]);
    EXPECT_EQ(sums.first, 4 * kCount);
    EXPECT_GT(sums.second, 0U);
    EXPECT_EQ(add(json["clients"]), sums);
    for (const auto& client : json["clients"]) {
        EXPECT_EQ(add(client["graphs"]).first, kCount);
        EXPECT_EQ(client["graphs"][0]["requests"], kCount * 3 / 4);
    }
}

TEST_F(KelmctlTest, StatusIsCompleteAndAMissingServiceIsTold) {
    start(0);
    EXPECT_EQ(run("wait-ready --timeout 20"), 0) << m_output;
    EXPECT_EQ(run("status"), 0);
    EXPECT_THAT(m_output, HasSubstr("DEVICES 3"));
    EXPECT_EQ(run("status --json"), 0);
    const auto json = nlohmann::json::parse(m_output);
    EXPECT_EQ(json["devices"].size(), 3U);
    EXPECT_EQ(json["client_count"], 1);  // itself
    EXPECT_EQ(run("status --json --watch 0.1 | head -n 3 | wc -l"), 0);
    EXPECT_EQ(m_output, "3\n");
    EXPECT_EQ(run("top </dev/null"), 1);
    EXPECT_THAT(m_output, HasSubstr("needs a terminal"));
    endService();
    const std::pair<const char*, const char*> rows[] = {
        {"status", "no service answers"},
        {"wait-ready --timeout 0.05", "kelm_service_ready.mutex"},
        {"bench --count 1 --graph /dev/null", "failed"}};
    for (const auto& [arguments, words] : rows) {
        EXPECT_EQ(run(arguments), 1) << arguments;
        EXPECT_THAT(m_output, HasSubstr(words));
    }
}

}  // namespace
}  // namespace kelm
