#include "shell/ServiceDaemonHelper.h"

#include "config/ServiceConfigParser.h"
#include "fakes/TempDir.h"
#include "utils/RunPaths.h"

namespace kelm {
namespace {

bool isFree(const std::string& path) {
    GlobalMutex mutex(path, true);
    return mutex.trylock();
}

TEST(ServiceDaemonHelperTest, LockTellsTheWrongPhase) {
    const TempDir dir;
    const ScopedEnv env("KELM_RUN_DIR", dir.path());
    const ScopedEnv install("KELM_INSTALL_DIR", dir.path());
    // Any user may run the test, so no group is asked for.
    ASSERT_TRUE(ServiceConfigParser::instance().appendConfigFile(
        dir.write("config", R"({"security_settings": {"user_group": ""}})"), true));
    {
        ServiceDaemonHelper helper;
        EXPECT_TRUE(helper.isLocked());
        EXPECT_FALSE(isFree(RunPaths::aliveMutex()));
        EXPECT_TRUE(isFree(RunPaths::readyMutex()));
        EXPECT_TRUE(isFree(RunPaths::startExitMutex()));

        helper.daemonReadyToServe();
        EXPECT_FALSE(isFree(RunPaths::readyMutex()));
        EXPECT_TRUE(helper.daemonReadyToStop(1000));
        EXPECT_FALSE(isFree(RunPaths::startExitMutex()));
        helper.daemonCancelStop();
        EXPECT_TRUE(isFree(RunPaths::startExitMutex()));
        helper.daemonStop();
        EXPECT_FALSE(isFree(RunPaths::readyMutex()));

        const ServiceDaemonHelper second;
        EXPECT_FALSE(second.isLocked());
    }
    const ServiceDaemonHelper next;  // the files stay and block nothing
    EXPECT_TRUE(next.isLocked());
    const auto mode = std::filesystem::status(RunPaths::aliveMutex()).permissions();
    EXPECT_EQ(static_cast<unsigned>(mode), 0660U);
}

}  // namespace
}  // namespace kelm
