#include <nlohmann/json.hpp>
#include <set>

#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"

namespace kelm {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// kelmctl in the background, with its output in a file.
class CommandProcess : public NonCopyable {
 public:
    CommandProcess(const std::string& arguments, const std::string& output) {
        const std::string command = "exec " KELM_CTL " " + arguments + " >" + output + " 2>&1";
        m_pid = ::fork();
        if (m_pid != 0) return;
        ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        ::_exit(127);
    }
    ~CommandProcess() {
        if (m_pid <= 0) return;
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }

    // Itself and its children.
    std::vector<std::string> processes() const {
        std::vector<std::string> all{std::to_string(m_pid)};
        std::ifstream children("/proc/" + all[0] + "/task/" + all[0] + "/children");
        for (std::string child; children >> child;) all.push_back(child);
        return all;
    }
    // The shared memory that they have.
    std::set<std::string> segments() const {
        std::set<std::string> files;
        for (const std::string& process : processes()) {
            std::ifstream maps("/proc/" + process + "/maps");
            for (std::string word; maps >> word;) {
                if (word.starts_with("/dev/shm/")) files.insert(word);
            }
        }
        return files;
    }

    void signal(int number) const { ::kill(m_pid, number); }
    // The exit status, or 0 less the signal that killed it.
    int wait() {
        int status = 0;
        ::waitpid(std::exchange(m_pid, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

 private:
    pid_t m_pid = -1;
};

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
        const std::string file = service().dir() + "/output";
        const int status = std::system((program + " " + arguments + " >" + file + " 2>&1").c_str());
        m_output = read(file);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    static std::string read(const std::string& file) {
        std::ostringstream text;
        text << std::ifstream(file).rdbuf();
        return text.str();
    }

    std::string graph() const { return service().files().write("graph", "a graph"); }
    std::string bench() const {
        return "bench --clients 2 --depth 1 --seconds 1000 --graph " + graph();
    }
    std::string infer() const {
        return "infer --graph " + graph() + " --input " + graph() + " --output " + service().dir() +
               "/result";
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
        CommandProcess command(row.arguments, output);
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
        EXPECT_THAT(read(output), HasSubstr(row.words));
        for (const std::string& process : processes) {
            // One that nobody waits for has no command line any more.
            EXPECT_TRUE(eventually([&] { return read("/proc/" + process + "/cmdline").empty(); }));
        }
        for (const std::string& file : segments) EXPECT_FALSE(std::filesystem::exists(file));
        EXPECT_TRUE(eventually([&] { return readPackage()->clientCount == 0; }));
    }

    std::string m_output;
    bool m_hangs = false;  // the service, which then finds clients vanished
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
    // Bytes that have no path.
    const std::string pipe = "cat " + files.path() + "/graph | " KELM_CTL;
    const std::string piped =
        "infer --graph /dev/stdin --input " + files.path() + "/graph --output " + output;
    EXPECT_EQ(run(piped, pipe), 0) << m_output;
    EXPECT_EQ(run(piped + " --graph-by-path", pipe), 1);
    EXPECT_EQ(run(files.path() + "/graph", KELM_README_PROGRAM), 0);
    EXPECT_EQ(m_output, "result of 4000 bytes\n");
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

TEST_F(KelmctlTest, MistakesInTheArgumentsAreOneLineAndStatus2) {
    start(0);
    const std::pair<const char*, const char*> rows[] = {
        {"", "no command"},
        {"infr --graph x", "'infer'"},
        {"infer", "--graph"},
        {"infer --graph x --input x --output x --timeout nan", "time-out"},
        {"bench --graph x --depth many", "many"},
        {"bench --graph x --clients 0", "number of clients"},
        {"bench --graph x --seconds -1", "seconds"},
        {"bench --graph x --count -1", "--count"},
        {"status --watch 0", "watch"},
        {"top --fast", "--fast"},
        {"wait-ready --timeout -1", "time-out"}};
    for (const auto& [arguments, words] : rows) {
        SCOPED_TRACE(arguments);
        EXPECT_EQ(run(arguments), 2);
        EXPECT_THAT(m_output, AllOf(StartsWith("kelmctl: "), HasSubstr(words)));
        EXPECT_EQ(std::count(m_output.begin(), m_output.end(), '\n'), 1) << m_output;
    }
    EXPECT_EQ(run("--help"), 0);
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
        {"bench --count 1 --graph /dev/stdin </etc/hostname", "0, 1, 2, 3 failed: no service"},
        {"bench --count 1 --graph /dev/null", "is empty"}};
    for (const auto& [arguments, words] : rows) {
        EXPECT_EQ(run(arguments), 1) << arguments;
        EXPECT_THAT(m_output, HasSubstr(words));
    }
}

}  // namespace
}  // namespace kelm
