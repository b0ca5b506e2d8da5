#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "fakes/TempDir.h"
#include "utils/Digest.h"
#include "utils/FileHelper.h"
#include "utils/GlobalMutex.h"
#include "utils/PlainFile.h"
#include "utils/Semaphore.h"
#include "utils/ThreadUtils.h"
#include "utils/UniqueFd.h"
#include "utils/UniqueMalloc.h"

namespace kelm {
namespace {

class FilesTest : public ::testing::Test {
 protected:
    std::string write(const std::string& name, const std::string& content) const {
        return m_directory.write(name, content);
    }
    std::string pathOf(const std::string& name) const { return m_directory.path() + "/" + name; }

    const TempDir m_directory;
};

TEST_F(FilesTest, DigestOfAFileIsThatOfItsBytes) {
    EXPECT_EQ(sha256ForString("abc"),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    for (const size_t size : {1, 4095, 4096, 4097, 10000}) {
        SCOPED_TRACE(size);
        const std::string content(size, 'k');
        EXPECT_EQ(sha256ForFile(write("blob", content).c_str()), sha256ForString(content));
    }
    // An empty file has a digest, an empty buffer and a missing file have none.
    EXPECT_EQ(sha256ForFile(write("empty", "").c_str()),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(sha256ForBuffer("", 0), "");
    EXPECT_EQ(sha256ForFile(pathOf("missing").c_str()), "");
}

TEST_F(FilesTest, WholeFilesAreReadAndEverythingElseIsRefused) {
    unsigned long size = 0;
    const UniqueMalloc<char> block(FileHelper::readFile(write("f", "hello").c_str(), &size));
    ASSERT_TRUE(block);
    EXPECT_EQ(std::string(block.get(), size), "hello");
    const std::string fifo = pathOf("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path : {fifo, m_directory.path(), pathOf("missing")}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(FileHelper::readFile(path.c_str(), &size), nullptr);
    }
}

TEST_F(FilesTest, ModesAndOwnersAreChangedOnlyWhereAsked) {
    const std::string path = write("f", "x");
    ASSERT_TRUE(FileHelper::changeFileMode(path.c_str(), 0640));
    EXPECT_TRUE(FileHelper::changeFileMode(path.c_str(), -1));
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777u, 0640u);
    EXPECT_TRUE(FileHelper::changeFileOwner(path.c_str(), "nobody", nullptr));
    EXPECT_FALSE(FileHelper::changeFileOwner(path.c_str(), nullptr, "no-such-group"));
    errno = 0;
    EXPECT_FALSE(FileHelper::changeFileMode("/missing/file", 0600));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(FileHelper::changeFileDesMode(0, 0600));
}

TEST_F(FilesTest, LockExcludesOtherObjectsAndEndsWithItsHolder) {
    const std::string path = pathOf("lock");
    GlobalMutex waiter(path, true);
    {
        GlobalMutex holder(path, true);
        ASSERT_TRUE(holder.trylock());
        EXPECT_TRUE(holder.trylock());  // one open file description
        EXPECT_FALSE(waiter.trylock());
        EXPECT_FALSE(waiter.lock(0));
    }
    EXPECT_TRUE(waiter.lock());
    EXPECT_TRUE(waiter.unlock());
    GlobalMutex unopened(pathOf("missing/lock"), true);
    EXPECT_FALSE(unopened.trylock());
}

// What others can plant under a name in a directory that they may write to.
TEST_F(FilesTest, PlantedFilesAreNeitherLockedNorWritten) {
    const std::string victim = write("victim", "precious");
    const std::string path = pathOf("thread.info");
    const struct {
        const char* what;
        std::function<int()> plant;
    } rows[] = {
        {"link", [&] { return ::symlink(victim.c_str(), path.c_str()); }},
        {"second name", [&] { return ::link(victim.c_str(), path.c_str()); }},
        {"pipe", [&] { return ::mkfifo(path.c_str(), 0600); }},
    };
    const std::string before = std::filesystem::current_path();
    std::filesystem::current_path(m_directory.path());
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_EQ(row.plant(), 0);
        // Another process may have a pipe open at both ends, so that opening it would not wait.
        const UniqueFd planted(::open(path.c_str(), O_RDWR));
        EXPECT_FALSE(GlobalMutex(path, true).isOpen());
        ThreadUtils::saveThreadInfo("any");
        EXPECT_EQ(FileHelper::getFileSize(victim), 8U);
        std::filesystem::remove(path);
    }
    std::filesystem::current_path(before);
}

TEST_F(FilesTest, FilesOfOneNameAreOpenedAndThoseOfOthersOnlyWhereTheyMayBe) {
    const std::string path = pathOf("file");
    const auto open = [&](int flags, PlainFile::Owner owner) {
        errno = 0;
        return bool(PlainFile::open(path.c_str(), O_RDWR | flags, 0600, owner));
    };
    EXPECT_TRUE(open(0, PlainFile::Owner::THIS_USER));
    write("file", "text");
    EXPECT_TRUE(open(0, PlainFile::Owner::THIS_USER));
    EXPECT_EQ(FileHelper::getFileSize(path), 4U);
    EXPECT_TRUE(open(O_TRUNC, PlainFile::Owner::THIS_USER));
    EXPECT_EQ(FileHelper::getFileSize(path), 0U);
    write("file", "text");
    // Root gives its file away; another user takes one that root has.
    const bool given = ::chown(path.c_str(), 65534, 65534) == 0;
    const std::string others = given ? path : "/etc/passwd";
    const int access = given ? O_RDWR : O_RDONLY;
    const auto size = FileHelper::getFileSize(others);
    EXPECT_FALSE(
        PlainFile::open(others.c_str(), access | O_TRUNC, 0600, PlainFile::Owner::THIS_USER));
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(FileHelper::getFileSize(others), size);
    EXPECT_TRUE(PlainFile::open(others.c_str(), access, 0600, PlainFile::Owner::ANYBODY));
}

TEST(SemaphoreTest, ValueStartsBelowZeroAndWaitsEndInTime) {
    Semaphore semaphore(0, -1);
    semaphore.post();
    EXPECT_FALSE(semaphore.tryWait());
    EXPECT_FALSE(semaphore.waitFor(1));
    std::thread other([&] { semaphore.post(); });
    semaphore.wait();
    other.join();
    EXPECT_EQ(semaphore.getValue(), 0);
}

}  // namespace
}  // namespace kelm
