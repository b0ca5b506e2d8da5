#include "utils/platform/linux/SubProcess.h"

namespace kelm {
namespace {

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
    std::string noting(const std::string& rest) {
        const std::string path = m_dir.write(
            "child", "#!/bin/sh\necho \"$$ $*\" >> " + m_dir.path() + "/calls\n" + rest);
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        return path;
    }
    // The call of this number, once it is there; it begins with the child's id.
    std::string call(int number) const {
        std::string line;
        EXPECT_TRUE(eventually([&] {
            std::ifstream file(m_dir.path() + "/calls");
            for (int i = 0; i <= number; ++i) std::getline(file, line);
            return file.good();
        }));
        return line;
    }
    static size_t threadCount() {
        const std::filesystem::directory_iterator tasks("/proc/self/task");
        return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
    }

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
        EXPECT_THAT(call(0), EndsWith(" -c x"));
        EXPECT_THAT(call(1), EndsWith(" -c x --recover"));
        ::kill(std::stoi(call(1)), SIGKILL);
        EXPECT_THAT(call(2), EndsWith(" -c x --recover"));
        last = std::stoi(call(2));
    }
    EXPECT_TRUE(eventually([last] { return ::kill(last, 0) != 0; }));
}

TEST_F(SubProcessTest, ChildThatDiesAtOnceIsStartedAfterGrowingPauses) {
    SubProcess process({noting("exit 3")});
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(process.execute(false));
    (void)process.enableDaemon(true);
    (void)call(3);
    // Pauses of 100, 200 and 400 ms.
    EXPECT_GE(std::chrono::steady_clock::now() - start, 700ms);
}

TEST_F(SubProcessTest, ChildrenReapedElsewhereEndTheSupervision) {
    const auto old = ::signal(SIGCHLD, SIG_IGN);  // children vanish without a wait
    SubProcess process({noting("exec sleep 60")});
    EXPECT_TRUE(process.execute(false));
    EXPECT_TRUE(process.enableDaemon(true));
    ::kill(std::stoi(call(0)), SIGKILL);
    EXPECT_TRUE(waitForThreadsToEnd());
    ::signal(SIGCHLD, old);
}

TEST_F(SubProcessTest, ProgramThatCannotRunEndsItsChild) {
    EXPECT_FALSE(SubProcess({}).execute(true));
    SubProcess process({m_dir.path() + "/none"});
    EXPECT_TRUE(process.execute(true));
    const auto failed = [](int status) { return WIFEXITED(status) && WEXITSTATUS(status) == 1; };
    int status = 0;
    while (::wait(&status) > 0 && !failed(status)) {
    }
    EXPECT_TRUE(failed(status));
}

}  // namespace
}  // namespace kelm
