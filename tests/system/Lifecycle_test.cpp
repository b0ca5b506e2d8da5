#include <sys/stat.h>

#include "fakes/ServiceProcess.h"
#include "tests/wire/WireClient.h"

namespace kelm {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using Milliseconds = std::chrono::milliseconds;

constexpr Milliseconds kTimeToEnd{12000};  // the service's own limit and some air

const char* const kLeaveAtOnce = R"({"service_settings": {"wait_seconds_before_exit": 0}})";
const char* const kLeaveLater = R"({"service_settings": {"wait_seconds_before_exit": 300}})";

TEST(LifecycleTest, LocksTellThePhaseAndTheSignalEndsTheService) {
    ServiceProcess service;
    service.start();
    ASSERT_TRUE(service.waitReady()) << service.log();
    EXPECT_TRUE(service.isHeld("kelm_service_alive.mutex"));
    EXPECT_FALSE(service.isHeld("kelm_start_exit.mutex"));
    EXPECT_TRUE(WireClient(service.socketPath()).connected());

    service.signal(SIGUSR1);
    EXPECT_EQ(service.waitExit(kTimeToEnd), 0) << service.log();
    EXPECT_THAT(service.log(), HasSubstr("RECEIVE USER1 SIGNAL, EXIT SERVICE"));
    EXPECT_THAT(service.log(), HasSubstr("SERVICE EXITS QUIETLY, GOODBYE!"));
    EXPECT_THAT(service.log(), Not(HasSubstr("leave without waiting")));
    EXPECT_FALSE(service.isHeld("kelm_service_alive.mutex"));
    EXPECT_FALSE(service.isHeld("kelm_service_ready.mutex"));
}

TEST(LifecycleTest, SecondInstanceLeavesTheFirstAlone) {
    ServiceProcess first;
    first.start();
    ASSERT_TRUE(first.waitReady()) << first.log();
    struct stat before {};
    ASSERT_EQ(::stat(first.socketPath().c_str(), &before), 0);

    ServiceProcess second;
    second.start({}, {"KELM_RUN_DIR=" + first.runDir()});
    EXPECT_EQ(second.waitExit(), 255);
    EXPECT_THAT(second.log(), HasSubstr("## Kelm service is already running."));
    struct stat after {};
    ASSERT_EQ(::stat(first.socketPath().c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_NE(WireClient(first.socketPath()).registerClient("still served"), 0U);
}

TEST(LifecycleTest, ServiceEndsBehindItsLastClientOnly) {
    ServiceProcess service(kLeaveAtOnce);
    service.start();
    ASSERT_TRUE(service.waitReady()) << service.log();
    WireClient stays(service.socketPath());
    ASSERT_NE(stays.registerClient("stays"), 0U);
    {
        WireClient leaves(service.socketPath(), "leaves");
        EXPECT_TRUE(leaves.unregister());
    }
    EXPECT_NE(WireClient(service.socketPath()).registerClient("vanishes"), 0U);
    EXPECT_TRUE(service.isHeld("kelm_service_ready.mutex"));
    stays.hangUp();
    EXPECT_EQ(service.waitExit(kTimeToEnd), 0) << service.log();
    EXPECT_THAT(service.log(), HasSubstr("Wait 0 seconds before main program exits"));
    EXPECT_THAT(service.log(), Not(HasSubstr("RECEIVE USER1 SIGNAL")));
}

TEST(LifecycleTest, SignalDuringTheLastWaitEndsTheServiceAtOnce) {
    for (const bool withClient : {false, true}) {
        SCOPED_TRACE(withClient);
        ServiceProcess service(kLeaveLater);
        service.start();
        ASSERT_TRUE(service.waitReady()) << service.log();
        EXPECT_NE(WireClient(service.socketPath()).registerClient("vanishes"), 0U);
        ASSERT_TRUE(service.waitLog("Wait 300 seconds before main program exits"));
        WireClient late(service.socketPath());
        EXPECT_TRUE(!withClient || late.registerClient("late") != 0);
        service.signal(SIGUSR1);
        EXPECT_EQ(service.waitExit(kTimeToEnd), 0) << service.log();
        EXPECT_THAT(service.log(), HasSubstr("RECEIVE USER1 SIGNAL, EXIT SERVICE"));
    }
}

TEST(LifecycleTest, ClientThatHoldsTheStartExitLockDoesNotKeepTheService) {
    ServiceProcess service(kLeaveAtOnce);
    service.start();
    ASSERT_TRUE(service.waitReady()) << service.log();
    const std::string path = service.runDir() + "/kelm_start_exit.mutex";
    const UniqueFd lock(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
    EXPECT_NE(WireClient(service.socketPath()).registerClient("vanishes"), 0U);
    ASSERT_TRUE(service.waitLog("Wait 0 seconds before main program exits"));
    service.signal(SIGUSR1);
    EXPECT_EQ(service.waitExit(kTimeToEnd), 0) << service.log();
    EXPECT_THAT(service.log(), Not(HasSubstr("leave without waiting")));
}

TEST(LifecycleTest, FailedStartIsToldByItsStatus) {
    const std::string tagMap =
        R"({"scheduler_config": [{"subclass": 0, "graph_tag_map": {"a": "x"}}]})";
    const struct {
        const char* name;
        std::string overrides;
        const char* directory;  // in the place of a socket
        const char* words;
    } rows[] = {
        {"tag map", tagMap, "", "invalid key-value pair, subclass=0 key=a"},
        {"socket", "", "kelm_service.sock", "Please remove /var/tmp/kelm_*, and then try again."},
        {"snapshot socket", R"({"debug_settings": {"info_printer": {"device_fps": "on"}}})",
         "kelm_snapshot.sock", "Please remove /var/tmp/kelm_*, and then try again."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ServiceProcess service(row.overrides);
        if (*row.directory != '\0') {
            service.files().write(std::string("run/") + row.directory + "/file", "");
        }
        service.start();
        EXPECT_EQ(service.waitExit(kTimeToEnd), 255) << service.log();
        EXPECT_THAT(service.log(), HasSubstr(row.words));
        EXPECT_THAT(service.log(), HasSubstr("SERVICE EXITS QUIETLY, GOODBYE!"));
    }
}

TEST(LifecycleTest, CommandLineThatAsksForNoServiceStartsNone) {
    const struct {
        std::vector<std::string> args;
        std::vector<std::string> environment;
        int status;
        const char* words;
    } rows[] = {
        {{"--list"}, {}, 0, "  - Task polling scheduler [name: \"polling\"]"},
        {{"--help"}, {}, 0, "Usage:"},
        {{"--nonsense"}, {}, 0, "Invalid commandline, detailed error:"},
        {{}, {"KELM_INSTALL_DIR="}, 255, "## Error: Please specify KELM_INSTALL_DIR"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.words);
        ServiceProcess service;
        service.start(row.args, row.environment);
        EXPECT_EQ(service.waitExit(), row.status);
        EXPECT_THAT(service.log(), HasSubstr(row.words));
        EXPECT_THAT(service.log(), Not(HasSubstr("has been loaded")));
    }
}

TEST(LifecycleTest, DaemonServesAndEndsLikeAForegroundRun) {
    ServiceProcess service(kLeaveAtOnce);
    service.start({"-d", "-c", "none"});
    EXPECT_TRUE(eventually([&] { return service.isHeld("kelm_service_ready.mutex"); }));
    EXPECT_NE(WireClient(service.socketPath()).registerClient("vanishes"), 0U);
    EXPECT_TRUE(eventually([&] { return !service.isHeld("kelm_service_alive.mutex"); }));
    EXPECT_EQ(service.waitExit(), 0);
    EXPECT_THAT(service.log(), HasSubstr("## Specified config file: none"));
}

}  // namespace
}  // namespace kelm
