#include <csignal>
#include <future>

#include "utils/FileHelper.h"
#include "utils/GlobalMutex.h"
#include "utils/PeerCredentials.h"
#include "utils/PlainFile.h"
#include "utils/ShareMemory.h"
#include "utils/ThreadUtils.h"
#include "utils/UniqueFd.h"
#include "utils/UniqueMalloc.h"

namespace kelm {
namespace {

class FilesTest : public ::testing::Test {
 protected:
    std::string write(const std::string& content) const {
        return m_directory.write("file", content);
    }

    const TempDir m_directory;
    const std::string m_path = m_directory.path() + "/file";
};

TEST_F(FilesTest, WholeFilesAreReadAndEverythingElseIsRefused) {
    unsigned long size = 0;
    const UniqueMalloc<char> block(FileHelper::readFile(write("hello").c_str(), &size));
    EXPECT_EQ(std::string(block.get(), size), "hello");
    const std::string fifo = m_path + "2";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path : {fifo, m_directory.path(), std::string("/missing")}) {
        EXPECT_EQ(FileHelper::readFile(path.c_str(), &size), nullptr) << path;
    }
}

// What others can plant under a name in a directory that they may write to.
TEST_F(FilesTest, PlantedFilesAreNeitherLockedNorWritten) {
    const std::string victim = write("precious");
    const std::string path = m_directory.path() + "/thread.info";
    const std::function<int()> plants[] = {
        [&] { return ::symlink(victim.c_str(), path.c_str()); },
        [&] { return ::link(victim.c_str(), path.c_str()); },
        [&] { return ::mkfifo(path.c_str(), 0600); },
    };
    const std::string before = std::filesystem::current_path();
    std::filesystem::current_path(m_directory.path());
    for (const auto& plant : plants) {
        SCOPED_TRACE(&plant - plants);
        ASSERT_EQ(plant(), 0);
        // Another process may have a pipe open at both ends, so that opening it would not wait.
        const UniqueFd planted(::open(path.c_str(), O_RDWR));
        EXPECT_FALSE(GlobalMutex(path, true).isOpen());
        ThreadUtils::saveThreadInfo("any");
        EXPECT_EQ(FileHelper::getFileSize(victim), 8U);
        std::filesystem::remove(path);
    }
    std::filesystem::current_path(before);
}

TEST_F(FilesTest, FilesOfOthersAreOpenedOnlyWhereTheyMayBe) {
    using Owner = PlainFile::Owner;
    EXPECT_TRUE(PlainFile::open(m_path.c_str(), O_RDWR, 0600, Owner::THIS_USER));
    write("text");
    EXPECT_TRUE(PlainFile::open(m_path.c_str(), O_RDWR | O_TRUNC, 0600, Owner::THIS_USER));
    EXPECT_EQ(FileHelper::getFileSize(m_path), 0U);
    write("text");
    // Root gives its file away; another user takes one that root has.
    const bool given = ::chown(m_path.c_str(), 65534, 65534) == 0;
    const std::string others = given ? m_path : "/etc/passwd";
    const int access = given ? O_RDWR : O_RDONLY;
    const auto size = FileHelper::getFileSize(others);
    EXPECT_FALSE(PlainFile::open(others.c_str(), access | O_TRUNC, 0600, Owner::THIS_USER));
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(FileHelper::getFileSize(others), size);
    EXPECT_TRUE(PlainFile::open(others.c_str(), access, 0600, Owner::ANYBODY));
}

TEST(ShareMemoryTest, LeaseOfAnotherProcessHoldsUpNobody) {
    ::signal(SIGIO, SIG_IGN);  // the kernel's word that the lease is in the way
    const std::string name = "/kelm_test_lease" + std::to_string(::getpid());
    (void)UniqueFd(::shm_open(name.c_str(), O_CREAT | O_RDWR, 0600));
    UniqueFd leased(::shm_open(name.c_str(), O_RDONLY, 0));
    ASSERT_EQ(::fcntl(leased.get(), F_SETLEASE, F_RDLCK), 0);
    auto data = std::async(std::launch::async, [&name] {
        const PeerCredentials& self = *PeerCredentials::ofThisProcess();
        return ShareMemory().openFor(self, FileRights::READ, name.c_str(), 0);
    });
    EXPECT_EQ(data.wait_for(10s), std::future_status::ready);
    leased.reset();
    EXPECT_EQ(data.get(), nullptr);
    ::shm_unlink(name.c_str());
}

}  // namespace
}  // namespace kelm
