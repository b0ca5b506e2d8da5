#include "utils/platform/linux/SubProcess.h"

#include <signal.h>
#include <sys/wait.h>

#include "fakes/Eventually.h"
#include "fakes/TempDir.h"

namespace kelm {
namespace {

using ::testing::HasSubstr;
using Milliseconds = std::chrono::milliseconds;

// Children are small shell scripts that note in a file how they were called.
class SubProcessTest : public ::testing::Test {
 protected:
    // A sanitizer starts a thread of its own with the first one.
    SubProcessTest() {
        std::thread([] {}).join();
        m_threads = threadCount();
    }
    // The thread that supervises a child ends after its owner.
    ~SubProcessTest() override { EXPECT_TRUE(waitForThreadsToEnd()); }

    bool waitForThreadsToEnd() const {
        return eventually([this] { return threadCount() <= m_threads; });
    }
    // A child that notes its call.
    std::string noting(const std::string& rest) {
        const std::string path = m_dir.write(
            "child", "#!/bin/sh\necho \"$$ $*\" >> " + m_dir.path() + "/calls\n" + rest);
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        return path;
    }
    std::vector<std::string> calls() const {
        std::vector<std::string> lines;
        std::ifstream file(m_dir.path() + "/calls");
        for (std::string line; std::getline(file, line);) lines.push_back(line);
        return lines;
    }
    bool waitForCalls(size_t count) {
        return eventually([&] { return calls().size() >= count; });
    }
    static size_t threadCount() {
        const std::filesystem::directory_iterator tasks("/proc/self/task");
        return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
    }
    static int pidOf(const std::string& call) { return std::stoi(call); }

    TempDir m_dir;
    size_t m_threads = 0;
};

TEST_F(SubProcessTest, DeadChildIsStartedAgainToRecoverAndEndsWithItsOwner) {
    int last = 0;
    {
        SubProcess process({noting("case \"$*\" in *--recover*) exec sleep 60;; esac"), "-c", "x"});
        EXPECT_FALSE(process.enableDaemon(true));
        ASSERT_TRUE(process.execute(false));
        EXPECT_TRUE(process.poll());
        ASSERT_TRUE(process.enableDaemon(true));
        ASSERT_TRUE(waitForCalls(2));
        EXPECT_THAT(calls()[0], ::testing::EndsWith(" -c x"));
        EXPECT_THAT(calls()[1], ::testing::EndsWith(" -c x --recover"));

        ::kill(pidOf(calls()[1]), SIGKILL);
        ASSERT_TRUE(waitForCalls(3));
        EXPECT_THAT(calls()[2], ::testing::EndsWith(" -c x --recover"));
        last = pidOf(calls()[2]);
    }
    EXPECT_TRUE(eventually([last] { return ::kill(last, 0) != 0; }));
}

TEST_F(SubProcessTest, ChildThatDiesAtOnceIsStartedAfterGrowingPauses) {
    SubProcess process({noting("exit 3")});
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(process.execute(false));
    (void)process.enableDaemon(true);
    ASSERT_TRUE(waitForCalls(4));
    // Pauses of 100, 200 and 400 ms.
    EXPECT_GE(std::chrono::steady_clock::now() - start, Milliseconds(700));
}

TEST_F(SubProcessTest, ChildrenReapedElsewhereEndTheSupervision) {
    ::testing::internal::CaptureStdout();
    const auto old = ::signal(SIGCHLD, SIG_IGN);  // children vanish without a wait
    {
        SubProcess process({noting("exec sleep 60")});
        EXPECT_TRUE(process.execute(false));
        EXPECT_TRUE(process.enableDaemon(true));
        EXPECT_TRUE(waitForCalls(1));
        ::kill(pidOf(calls().at(0)), SIGKILL);
        EXPECT_TRUE(waitForThreadsToEnd());
    }
    ::signal(SIGCHLD, old);
    const std::string text = ::testing::internal::GetCapturedStdout();
    const std::string error = "Failed to check subprocess status";
    ASSERT_THAT(text, HasSubstr(error));
    EXPECT_EQ(text.find(error), text.rfind(error));
    EXPECT_EQ(calls().size(), 1U);
}

TEST_F(SubProcessTest, ProgramThatCannotRunIsTold) {
    ::testing::internal::CaptureStdout();
    SubProcess none({});
    EXPECT_FALSE(none.execute(true));
    SubProcess process({m_dir.path() + "/none"});
    EXPECT_TRUE(process.execute(true));
    const auto isItsChild = [](const siginfo_t& info) {
        return info.si_code == CLD_EXITED && info.si_status == 1;
    };
    siginfo_t info{};
    while (::waitid(P_ALL, 0, &info, WEXITED) == 0 && !isItsChild(info)) {
    }
    EXPECT_TRUE(isItsChild(info));
    const std::string text = ::testing::internal::GetCapturedStdout();
    EXPECT_THAT(text, HasSubstr("create Daemon failed with empty argument vector"));
    EXPECT_THAT(text, HasSubstr("Failed to start subprocess\n"));
}

}  // namespace
}  // namespace kelm
