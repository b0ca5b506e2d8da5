#include "fakes/ServiceProcess.h"
#include "tests/wire/WireClient.h"

namespace kelm {
namespace {

constexpr std::chrono::milliseconds kTimeToEnd{12000};  // the service's own limit and some air

// A service that has started; it waits so long behind its last client.
struct ReadyService : ServiceProcess {
    explicit ReadyService(const char* waitSeconds = "-1")
        : ServiceProcess(std::string(R"({"service_settings": {"wait_seconds_before_exit": )") +
                         waitSeconds + "}}") {
        start();
        EXPECT_TRUE(waitReady()) << log();
    }
    // A client that hangs up once it is registered.
    void comeAndVanish() const {
        EXPECT_NE(WireClient(socketPath()).registerClient("vanishes"), 0U);
    }
    void expectEnd() {
        EXPECT_EQ(waitExit(kTimeToEnd), 0) << log();
        EXPECT_THAT(log(), Not(HasSubstr("leave without waiting")));
    }
};

TEST(LifecycleTest, SecondInstanceLeavesTheFirstAlone) {
    ReadyService first;
    ServiceProcess second;
    second.start({}, {"KELM_RUN_DIR=" + first.runDir()});
    EXPECT_EQ(second.waitExit(), 255);
    EXPECT_THAT(second.log(), HasSubstr("## Kelm service is already running."));
    first.comeAndVanish();
    first.signal(SIGUSR1);
    first.expectEnd();
}

TEST(LifecycleTest, ServiceEndsBehindItsLastClientOnly) {
    ReadyService service("0");
    WireClient stays(service.socketPath(), "stays");
    EXPECT_TRUE(WireClient(service.socketPath(), "leaves").unregister());
    service.comeAndVanish();
    EXPECT_TRUE(stays.infers(stays.createGraph({"graph"}).graphId));
    stays.hangUp();
    service.expectEnd();
}

TEST(LifecycleTest, SignalDuringTheLastWaitEndsTheServiceAtOnce) {
    for (const bool withClient : {false, true}) {
        SCOPED_TRACE(withClient);
        ReadyService service("300");
        service.comeAndVanish();
        ASSERT_TRUE(service.waitLog("Wait 300 seconds before main program exits"));
        WireClient late(service.socketPath());
        EXPECT_TRUE(!withClient || late.registerClient("late") != 0);
        service.signal(SIGUSR1);
        service.expectEnd();
    }
}

TEST(LifecycleTest, ClientThatHoldsTheStartExitLockDoesNotKeepTheService) {
    ReadyService service("0");
    const std::string path = service.runDir() + "/kelm_start_exit.mutex";
    const UniqueFd lock(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
    service.comeAndVanish();
    ASSERT_TRUE(service.waitLog("Wait 0 seconds before main program exits"));
    service.signal(SIGUSR1);
    service.expectEnd();
}

TEST(LifecycleTest, StartThatComesToNothingIsToldByItsStatus) {
    const struct {
        const char* words;
        int status = 255;
        std::string overrides{};
        std::string directory{};  // in the place of a socket
        std::vector<std::string> args{};
        std::vector<std::string> environment{};
    } rows[] = {
        {.words = "invalid key-value pair, subclass=0 key=a",
         .overrides = R"({"scheduler_config": [{"subclass": 0, "graph_tag_map": {"a": "x"}}]})"},
        {.words = "Please remove /var/tmp/kelm_*, and then try again.",
         .directory = "kelm_service.sock"},
        {.words = "Please remove /var/tmp/kelm_*, and then try again.",
         .overrides = R"({"debug_settings": {"info_printer": {"device_fps": "on"}}})",
         .directory = "kelm_snapshot.sock"},
        {.words = "## Error: Please specify KELM_INSTALL_DIR",
         .environment = {"KELM_INSTALL_DIR="}},
        {.words = "Invalid commandline, detailed error:", .status = 0, .args = {"--nonsense"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.words + row.directory);
        ServiceProcess service(row.overrides);
        if (!row.directory.empty()) service.files().write("run/" + row.directory + "/file", "");
        service.start(row.args, row.environment);
        EXPECT_EQ(service.waitExit(kTimeToEnd), row.status);
        EXPECT_THAT(service.log(), HasSubstr(row.words));
    }
}

}  // namespace
}  // namespace kelm
