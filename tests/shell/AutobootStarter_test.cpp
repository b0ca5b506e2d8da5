#include "tools/autoboot/AutobootStarter.h"

#include "fakes/LockFiles.h"
#include "utils/RunPaths.h"
#include "utils/platform/linux/SubProcess.h"

namespace kelm {
namespace {

constexpr std::chrono::milliseconds kShort{2500};

// The boot tool is a shell script that notes its calls, and pkill one that ends the first of them.
class AutobootStarterTest : public ::testing::Test {
 protected:
    AutobootStarterTest() {
        // Like the real one it returns before the tool has ended.
        script("path/pkill",
               "echo \"$*\" >> kills\n"
               "( sleep 0.3; kill -9 $(head -n 1 calls | cut -d ' ' -f 1) ) > /dev/null 2>&1 &\n");
    }
    ~AutobootStarterTest() override {
        m_starter.stop();
        for (const std::string& call : lines("calls")) ::kill(std::stoi(call), SIGKILL);
    }

    // `between` runs before the ready lock is taken, `behind` once it is.
    std::string tool(const std::string& name = "bin/autoboot", const std::string& between = "",
                     const std::string& behind = "") {
        return script(name,
                      "echo \"$$ $*\" >> calls\n"
                      "exec 8>>kelm_autoboot_alive.mutex; flock 8\n" +
                          between + "\nexec 9>>kelm_autoboot_ready.mutex; flock 9\n" + behind +
                          "\necho $$ >> readies\nexec sleep 60\n");
    }
    std::string script(const std::string& name, const std::string& body) {
        const std::string path = m_dir.write(name, "#!/bin/sh\ncd " + m_dir.path() + "\n" + body);
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        return path;
    }
    std::vector<std::string> lines(const std::string& name) const {
        std::vector<std::string> all;
        std::ifstream file(m_dir.path() + "/" + name);
        for (std::string line; std::getline(file, line);) all.push_back(line);
        return all;
    }

    const TempDir m_dir;
    const ScopedEnv m_runDir{"KELM_RUN_DIR", m_dir.path()};
    const ScopedEnv m_installDir{"KELM_INSTALL_DIR", m_dir.path()};
    const ScopedEnv m_path{"PATH", m_dir.path() + "/path:/usr/bin:/bin"};
    AutobootStarter m_starter;
};

TEST_F(AutobootStarterTest, LaunchWaitsForTheLocksOfTheNewTool) {
    // Its ready lock outlives its alive lock for a while.
    SubProcess old({tool("old", "", "( exec 8>&-; exec sleep 1.5 ) &")});
    tool("bin/autoboot", "sleep 3.3");  // longer than one that is not alive is waited for
    ASSERT_TRUE(old.execute(false));
    ASSERT_TRUE(eventually([this] { return lines("readies").size() == 1; }));
    EXPECT_TRUE(m_starter.launch({"one", "two"}));
    EXPECT_THAT(lines("kills"), ElementsAre("autoboot"));
    EXPECT_THAT(lines("calls"), ElementsAre(::testing::_, EndsWith(" --auxiliary -c one two")));
    // Noted right after the lock that the launch waits for, and long after the old one's end.
    EXPECT_TRUE(eventually([this] { return lines("readies").size() == 2; }, kShort));
}

TEST_F(AutobootStarterTest, CrashedToolIsStartedAgainUntilTheSupervisionEnds) {
    tool();
    auto starter = std::make_unique<AutobootStarter>();
    ASSERT_TRUE(starter->launch({}));
    EXPECT_FALSE(m_starter.launch({}));  // another service is at it
    ::kill(std::stoi(lines("calls").at(0)), SIGKILL);
    ASSERT_TRUE(eventually([this] { return lines("readies").size() == 2; }));
    EXPECT_THAT(lines("calls").at(1), EndsWith(" --auxiliary --recover"));
    starter->stop();
    EXPECT_TRUE(isFree(RunPaths::autobootStartExitMutex()));
    starter.reset();
    EXPECT_FALSE(isFree(RunPaths::autobootAliveMutex()));  // the tool runs on alone
}

TEST_F(AutobootStarterTest, LaunchWithoutAToolThatComesUpFails) {
    for (const char* tool : {"bin/another", "bin/autoboot"}) {
        SCOPED_TRACE(tool);
        script(tool, "echo $$ >> calls\nexec sleep 60\n");
        EXPECT_FALSE(m_starter.launch({}));
        EXPECT_TRUE(isFree(RunPaths::autobootStartExitMutex()));
    }
    EXPECT_EQ(lines("calls").size(), 1U);
    EXPECT_THAT(lines("kills"), IsEmpty());
}

}  // namespace
}  // namespace kelm
