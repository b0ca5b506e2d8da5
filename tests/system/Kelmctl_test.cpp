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
        const std::string command = KELM_CTL " " + arguments + " 2>&1";
        FILE* output = ::popen(command.c_str(), "r");
        m_output.clear();
        char bytes[512];
        while (const size_t count = ::fread(bytes, 1, sizeof(bytes), output)) {
            m_output.append(bytes, count);
        }
        const int status = ::pclose(output);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string m_output;
};

TEST_F(KelmctlTest, InferenceWritesItsOutputOrTellsItsFailure) {
    start(0);
    service().useRunDir();
    const TempDir& files = service().files();
    const std::string graph = files.write("graph", "a graph");
    const std::string input = files.write("input", std::string(36000, 'i'));
    const std::string large = files.write("large", std::string(36001, 'i'));
    const std::string output = files.path() + "/output";
    const auto infer = [&](const std::string& graphFile, const std::string& inputFile) {
        return run("infer --graph " + graphFile + " --input " + inputFile + " --output " + output);
    };
    EXPECT_EQ(infer(graph, input), 0) << m_output;
    EXPECT_EQ(std::filesystem::file_size(output), 4000U);
    EXPECT_EQ(infer(files.path() + "/missing", input), 1);
    EXPECT_THAT(m_output, HasSubstr("missing"));
    EXPECT_EQ(infer(graph, large), 1);
    EXPECT_THAT(m_output, HasSubstr("36001"));
}

TEST_F(KelmctlTest, BenchReportAddsUpAndNoSharedMemoryStays) {
    constexpr uint64_t kCount = 400;
    start(1, R"("server_max_task_number": 10)");  // some are refused
    service().useRunDir();
    const TempDir& files = service().files();
    const std::string report = files.path() + "/report.json";
    const auto sharedMemory = [] {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
            names.insert(entry.path());
        }
        return names;
    };
    const std::set<std::string> before = sharedMemory();
    EXPECT_EQ(run("bench --clients 4 --depth 12 --count " + std::to_string(kCount) + " --graph " +
                  files.write("first", "first graph") + " --graph " +
                  files.write("second", "second graph") + " --weights 3,1 --json " + report),
              0)
        << m_output;
    std::set<std::string> added = sharedMemory();
    // Others on this machine may have some too, for a while.
    EXPECT_TRUE(eventually([&] {
        std::erase_if(added, [&](const std::string& name) {
            return before.count(name) != 0 || !std::filesystem::exists(name);
        });
        return added.empty();
    })) << added.size();
    const auto json = nlohmann::json::parse(std::ifstream(report));
    const auto sumOf = [](const nlohmann::json& rows, const char* field) {
        uint64_t sum = 0;
        for (const auto& row : rows) {
            const auto errors = row["errors"].get<std::map<std::string, uint64_t>>();
            uint64_t failed = 0;
            for (const auto& [name, count] : errors) failed += count;
            EXPECT_EQ(row["result"]["count"].get<uint64_t>() + failed, row["requests"]);
            sum += std::string(field) == "errors" ? failed : row[field].get<uint64_t>();
        }
        return sum;
    };
    EXPECT_EQ(json["clients"].size(), 4U);
    EXPECT_EQ(sumOf(json["graphs"], "requests"), 4 * kCount);
    EXPECT_GT(sumOf(json["graphs"], "errors"), 0U);
    EXPECT_EQ(sumOf(json["graphs"], "errors"), sumOf(json["clients"], "errors"));
    for (const auto& client : json["clients"]) {
        EXPECT_EQ(client["requests"], kCount);
        EXPECT_EQ(sumOf(client["graphs"], "requests"), kCount);
        EXPECT_EQ(client["graphs"][0]["requests"], kCount * 3 / 4);
    }
}

TEST_F(KelmctlTest, StatusIsCompleteAndTellsThatNoServiceAnswers) {
    start(0);
    service().useRunDir();
    EXPECT_EQ(run("status"), 0);
    EXPECT_THAT(m_output, HasSubstr("DEVICES 3"));
    EXPECT_EQ(run("status --json"), 0);
    const auto json = nlohmann::json::parse(m_output);
    EXPECT_EQ(json["devices"].size(), 3U);
    EXPECT_NE(json["devices"][0]["name"], "");
    EXPECT_NE(json["device_scheduler"], "");
    EXPECT_EQ(json["client_count"], 1);  // itself
    EXPECT_EQ(run("status --json --watch 0.1 | head -n 3 | wc -l"), 0);
    EXPECT_EQ(m_output, "3\n");
    EXPECT_EQ(run("top </dev/null"), 1);
    EXPECT_THAT(m_output, HasSubstr("needs a terminal"));
    endService();
    EXPECT_EQ(run("status"), 1);
    EXPECT_THAT(m_output, HasSubstr("no service answers"));
}

TEST_F(KelmctlTest, WaitReadyTellsTheStateOfTheService) {
    start(0);
    service().useRunDir();
    EXPECT_EQ(run("wait-ready --timeout 20"), 0) << m_output;
    endService();
    EXPECT_EQ(run("wait-ready --timeout 0.05"), 1);
    EXPECT_THAT(m_output, HasSubstr("kelm_service_ready.mutex"));
    EXPECT_EQ(run("bench --count 1 --graph /dev/null"), 1);
    EXPECT_THAT(m_output, HasSubstr("failed"));
}

}  // namespace
}  // namespace kelm
