#include <nlohmann/json.hpp>

#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"
#include "system/CommandProcess.h"

namespace kelm {
namespace {

class KelmctlTest : public SystemFixture {
 protected:
    // Whatever a command has done, it has left in order.
    void TearDown() override {
        SystemFixture::TearDown();
        if (m_hangs) return;
        EXPECT_THAT(service().log(), Not(HasSubstr("ERROR[")));
    }

    // Returns the exit status.
    int run(const std::string& arguments, const std::string& program = KELM_CTL) {
        service().useRunDir();
        const ShellCommand command(program + " " + arguments);
        m_output = command.output;
        return command.status;
    }

    std::string graph() const { return service().files().write("graph", "a graph"); }
    std::string bench() const {
        return "bench --clients 2 --depth 1 --seconds 1000 --graph " + graph();
    }
    std::string infer() const {
        return "infer --pad --graph " + graph() + " --input " + graph() + " --output " +
               service().dir() + "/result";
    }

    struct Ended {
        std::string arguments;
        size_t segments;
        int signal;
        int status;
        std::string words;
    };
    void endBySignal(const Ended& row) {
        SCOPED_TRACE(row.arguments + ::strsignal(row.signal));
        service().useRunDir();
        const std::string output = service().dir() + "/output";
        CommandProcess command(row.arguments + " >" + output + " 2>&1");
        EXPECT_TRUE(eventually([&] { return command.segments().size() == row.segments; }));
        if (row.words == "fairness") {  // there must be something to report
            EXPECT_TRUE(eventually([&] { return readPackage()->clients[0].inferenceTimes > 0; }));
        }
        const auto segments = command.segments();
        const auto processes = command.processes();
        if (m_hangs) service().signal(SIGSTOP);
        command.signal(row.signal);
        EXPECT_EQ(command.wait(), row.status);
        service().signal(SIGCONT);
        EXPECT_THAT(readText(output), HasSubstr(row.words));
        for (const std::string& process : processes) {
            // One that nobody waits for has no command line any more.
            EXPECT_TRUE(
                eventually([&] { return readText("/proc/" + process + "/cmdline").empty(); }));
        }
        for (const std::string& file : segments) EXPECT_FALSE(std::filesystem::exists(file));
        EXPECT_TRUE(eventually([&] { return readPackage()->clientCount == 0; }));
    }

    std::string m_output;
    bool m_hangs = false;  // the service, which then finds clients vanished
};

TEST_F(KelmctlTest, EventsAndExplanationTellOfAGraphThatIsLoaded) {
    start(0);
    service().useRunDir();
    CommandProcess load("load --hold " + graph() + " >/dev/null");
    EXPECT_EQ(run("wait-ready --graph graph"), 0) << m_output;
    EXPECT_EQ(run("explain graph"), 0) << m_output;
    EXPECT_THAT(m_output, AllOf(HasSubstr("It is on Fake"), HasSubstr("loaded it onto Fake")));
    EXPECT_EQ(run("explain other"), 1);
    const std::string log = service().dir() + "/events";
    const CommandProcess follower("events --follow --json >" + log);
    load.signal(SIGTERM);
    (void)load.wait();
    EXPECT_TRUE(eventually([&] { return read(log).find("client_gone") != std::string::npos; }));
    EXPECT_EQ(run("events --json"), 0);
    std::istringstream lines(m_output);
    uint64_t last = 0;
    for (std::string line; std::getline(lines, line);) {
        const auto event = nlohmann::json::parse(line);
        EXPECT_EQ(event["schema"], 1);
        EXPECT_EQ(event["seq"], last + 1) << line;
        last = event["seq"];
    }
    EXPECT_GT(last, 5U);
}

TEST_F(KelmctlTest, InferenceWritesItsOutput) {
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
    // Bytes that have no path.
    const std::string pipe = "cat " + files.path() + "/graph | " KELM_CTL;
    const std::string piped =
        "infer --pad --graph /dev/stdin --input " + files.path() + "/graph --output " + output;
    EXPECT_EQ(run(piped, pipe), 0) << m_output;
    EXPECT_EQ(run(piped + " --graph-by-path", pipe), 1);
}

TEST_F(KelmctlTest, SignalEndsACommandAndNothingStaysBehind) {
    start(500);
    endBySignal({bench(), 4, SIGINT, 128 + SIGINT, "fairness"});
    endBySignal({bench(), 4, SIGTERM, 128 + SIGTERM, ""});
    endBySignal({bench(), 4, SIGKILL, -SIGKILL, ""});
    endBySignal({infer(), 2, SIGTERM, 128 + SIGTERM, "interrupted"});
}

TEST_F(KelmctlTest, ServiceThatHangsHoldsNoCommand) {
    m_hangs = true;
    start(500);
    endBySignal({infer(), 2, SIGINT, 128 + SIGINT, "interrupted"});
    endBySignal({bench(), 4, SIGHUP, 128 + SIGHUP, ""});
}

TEST_F(KelmctlTest, StatusIsCompleteAndAMissingServiceIsTold) {
    start(0);
    EXPECT_EQ(run("wait-ready --timeout 20"), 0) << m_output;
    EXPECT_EQ(run("--help"), 0);
    EXPECT_EQ(run("status"), 0);
    EXPECT_THAT(m_output, HasSubstr("DEVICES 3"));
    EXPECT_EQ(run("status --json"), 0);
    const auto json = nlohmann::json::parse(m_output);
    EXPECT_EQ(json["devices"].size(), 3U);
    EXPECT_EQ(json["client_count"], 1);  // itself
    EXPECT_EQ(run("status --json --watch 0.1 | head -n 3 | wc -l"), 0);
    EXPECT_EQ(m_output, "3\n");
    endService();
    const std::pair<const char*, const char*> rows[] = {
        {"bench --count 1 --graph /dev/stdin </etc/hostname", "0, 1, 2, 3 failed: no service"},
        {"bench --count 1 --graph /dev/null", "is empty"}};
    for (const auto& [arguments, words] : rows) {
        EXPECT_EQ(run(arguments), 1) << arguments;
        EXPECT_THAT(m_output, HasSubstr(words));
    }
}

TEST_F(KelmctlTest, ServiceIsStoppedAndAWatchLivesOn) {
    start(0);
    service().useRunDir();
    const std::string watched = service().dir() + "/watched";
    const auto isNow = [&](const std::string& words) {
        return eventually([&] {
            const std::string text = readText(watched);
            return text.ends_with("\n") &&
                   text.find(words, text.rfind('\n', text.size() - 2) + 1) != text.npos;
        });
    };
    CommandProcess watch("status --json --watch 0.1 >" + watched);
    EXPECT_TRUE(isNow("\"up\":true"));
    const std::string held = service().dir() + "/held";
    CommandProcess holder("load --wait --warm 2 --hold " + graph() + " >" + held + " 2>&1");
    EXPECT_EQ(run("wait-ready --graph graph --devices 3"), 0) << m_output;
    EXPECT_TRUE(
        eventually([&] { return readText(held).ends_with("held until a signal comes\n"); }));
    EXPECT_TRUE(isNow("\"inferences\":2"));
    holder.signal(SIGTERM);
    EXPECT_EQ(holder.wait(), 0);
    EXPECT_TRUE(isNow("\"graphs\":[]"));
    EXPECT_EQ(run("reset Fake1"), 0) << m_output;
    EXPECT_EQ(run("stop"), 0) << m_output;
    EXPECT_FALSE(service().isHeld("kelm_service_alive.mutex"));
    EXPECT_EQ(service().waitExit(), 0);
    EXPECT_TRUE(isNow("\"up\":false"));
    service().start();
    EXPECT_TRUE(isNow("\"up\":true"));
    watch.signal(SIGINT);
    EXPECT_EQ(watch.wait(), 128 + SIGINT);
}

}  // namespace
}  // namespace kelm
