#include "shell/ServiceDaemonHelper.h"

#include "config/ServiceConfigParser.h"
#include "fakes/LockFiles.h"
#include "utils/RunPaths.h"
#include "utils/platform/linux/SubProcess.h"

namespace kelm {
namespace {

class ServiceDaemonHelperTest : public ::testing::Test {
 protected:
    // Any user may run the test, so no group is asked for.
    void SetUp() override {
        ASSERT_TRUE(ServiceConfigParser::instance().appendConfigFile(
            dir.write("config", R"({"security_settings": {"user_group": ""}})"), true));
    }

    const TempDir dir;
    const ScopedEnv env{"KELM_RUN_DIR", dir.path()};
    const ScopedEnv install{"KELM_INSTALL_DIR", dir.path()};
};

TEST_F(ServiceDaemonHelperTest, ReadyLockOfAnotherHoldsUpNeitherStartNorStop) {
    GlobalMutex other(RunPaths::readyMutex(), true);
    ASSERT_TRUE(other.trylock());
    std::atomic<int> held{0};
    ServiceDaemonHelper stays;
    const auto done = std::async(std::launch::async, [&] {
        {
            ServiceDaemonHelper stops;
            stops.daemonReadyToServe([&] { held += 10; });
            stops.daemonStop();
        }
        stays.daemonReadyToServe([&] { ++held; });
    });
    EXPECT_EQ(done.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(held, 0);
    other.unlock();
    EXPECT_TRUE(eventually([&] { return held == 1; }));
    EXPECT_FALSE(isFree(RunPaths::readyMutex()));
}

TEST_F(ServiceDaemonHelperTest, LocksTellThePhase) {
    auto helper = std::make_unique<ServiceDaemonHelper>();
    EXPECT_TRUE(helper->isLocked());
    EXPECT_TRUE(isFree(RunPaths::readyMutex()));
    helper->daemonReadyToServe();
    EXPECT_FALSE(isFree(RunPaths::readyMutex()));
    EXPECT_TRUE(helper->daemonReadyToStop(1000));
    EXPECT_FALSE(GlobalMutex(RunPaths::startExitMutex(), true).lock(0));
    helper->daemonCancelStop();
    EXPECT_TRUE(isFree(RunPaths::startExitMutex()));
    helper->daemonStop();
    EXPECT_FALSE(isFree(RunPaths::readyMutex()));
    EXPECT_FALSE(ServiceDaemonHelper().isLocked());
    EXPECT_TRUE(helper->daemonReadyToStop(1000));
    SubProcess tool({"/bin/sleep", "60"});  // like the boot tool it outlives the service
    EXPECT_TRUE(tool.execute(false));
    helper.reset();
    // The files stay and block nothing.
    for (const std::string& path :
         {RunPaths::aliveMutex(), RunPaths::readyMutex(), RunPaths::startExitMutex()}) {
        EXPECT_TRUE(eventually([&] { return isFree(path); })) << path;
    }
    EXPECT_TRUE(ServiceDaemonHelper().isLocked());
    EXPECT_EQ(std::filesystem::status(RunPaths::aliveMutex()).permissions(),
              std::filesystem::perms{0660});
}

}  // namespace
}  // namespace kelm
