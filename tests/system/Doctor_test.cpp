#include <nlohmann/json.hpp>

#include "client/SegmentName.h"
#include "fakes/OtherUser.h"
#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"
#include "system/CommandProcess.h"

namespace kelm {
namespace {

// A name as of a process that has died.
std::string leaveSegment() {
    int ends[2] = {-1, -1};
    if (::pipe(ends) != 0) return "";
    const pid_t pid = ::fork();
    if (pid == 0) {
        const std::string name = client::SegmentName::make();
        const bool isMade = ::shm_open(name.c_str(), O_CREAT | O_RDWR, 0600) >= 0 &&
                            ::write(ends[1], name.data(), name.size()) > 0;
        ::_exit(isMade ? 0 : 1);
    }
    ::waitpid(pid, nullptr, 0);
    char name[64] = {};
    (void)::read(ends[0], name, sizeof(name) - 1);
    for (const int end : ends) ::close(end);
    return name;
}

using DoctorTest = SystemFixture;

TEST_F(DoctorTest, TellsWhatIsWrongAndWhatToDo) {
    start();
    const ScopedEnv home("HOME", service().dir() + "/home");
    const ScopedEnv install("KELM_INSTALL_DIR", service().dir() + "/install");
    const std::string runDir = service().runDir();
    service().useRunDir();
    const auto lock = [&](const char* name) { return runDir + "/kelm_" + name + ".mutex"; };
    const std::string self = "process " + std::to_string(::getpid());
    const std::string aside = service().dir() + "/aside";
    std::string segment;
    UniqueFd held;
    const auto restore = [&] {
        ::chmod(runDir.c_str(), 0755);
        ::rename(aside.c_str(), lock("service_alive").c_str());
        held.reset();
        service().signal(SIGCONT);
        service().useRunDir();
    };
    const struct {
        const char* scene;
        std::vector<std::string> lines;  // each a part of one
        std::function<void()> enter;
    } rows[] = {
        {"all is well",
         {"ok       socket: process " + std::to_string(service().pid()) + " (kelmdaemon)",
          "ok       inference: 36000 bytes there"},
         [] {}},
        {"segments of the dead",
         {"warning  stale segments: ", "kelmctl infer"},
         [&] { segment = leaveSegment(); }},
        {"no sticky bit",
         {"warning  run directory:", "chmod +t"},
         [&] { ::chmod(runDir.c_str(), 0777); }},
        {"a lock is removed",
         {"problem  lock: " + lock("service_alive") + " is not there; ", "start the service again"},
         [&] { ::rename(lock("service_alive").c_str(), aside.c_str()); }},
        {"a client starts the service",
         {"warning  lock: " + lock("start_exit") + " is held by " + self, "end that process"},
         [&] {
             held.reset(::open(lock("start_exit").c_str(), O_RDONLY | O_CLOEXEC));
             ::flock(held.get(), LOCK_EX);
         }},
        {"the service hangs",
         {"problem  socket: process", "no answer", "problem  lock: " + lock("service_ready")},
         [&] { service().signal(SIGSTOP); }},
        {"findings",
         {"warning  configuration: 1 findings; see kelmctl config check"},
         [&] { service().files().write("home/.kelm_service.config", R"({"x": 1})"); }},
        {"no directory",
         {"problem  run directory: " + aside, "problem  socket: ", "start kelmdaemon"},
         [&] { ::setenv("KELM_RUN_DIR", aside.c_str(), 1); }},
        {"accelerators, of which there are none",
         {"warning  configuration: KELM_INSTALL_DIR is not set",
          "problem  library: libtevo-kelm.so.0", "problem  device: no ", " port: "},
         [&] {
             ::setenv("KELM_RUN_DIR", aside.c_str(), 1);
             ::unsetenv("KELM_INSTALL_DIR");
         }}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.scene);
        std::string text;
        const bool isProblem = std::ranges::any_of(
            row.lines, [](const std::string& line) { return line.starts_with("problem"); });
        const auto tells = [&text](const std::string& line) {
            return text.find(line) != text.npos;
        };
        // More than once, since pools of other tests remove what dead processes have left.
        (void)eventually([&] {
            row.enter();
            const ShellCommand command(KELM_CTL " doctor --timeout 1");
            EXPECT_EQ(command.status, isProblem ? 1 : 0);
            restore();
            text = command.output;
            return std::ranges::all_of(row.lines, tells);
        });
        for (const std::string& line : row.lines) EXPECT_THAT(text, HasSubstr(line));
    }
    EXPECT_FALSE(std::filesystem::exists("/dev/shm" + segment)) << "the inference has removed it";
}

TEST_F(DoctorTest, TellsAUserOfAMissingGroup) {
    if (!OtherUser::isPossible()) return;
    start();
    service().useRunDir();
    ::chmod(service().dir().c_str(), 0755);
    const std::string output = service().files().write("output", "");
    ::chmod(output.c_str(), 0666);
    CommandProcess command("doctor --json >" + output, OtherUser::kId);
    EXPECT_EQ(command.wait(), 1);
    const auto checks = nlohmann::json::parse(std::ifstream(output)).at("checks");
    const auto group =
        std::ranges::find(checks, "group", [](const auto& check) { return check.at("check"); });
    ASSERT_NE(group, checks.end());
    EXPECT_EQ(group->at("result"), "problem");
    EXPECT_THAT(group->at("advice").template get<std::string>(), HasSubstr("user_group"));
}

}  // namespace
}  // namespace kelm
