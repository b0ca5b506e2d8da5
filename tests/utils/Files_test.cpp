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
    std::string write(const std::string& name, const std::string& content) {
        const std::string path = m_directory.path() + "/" + name;
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    TempDir m_directory;
};

TEST_F(FilesTest, DigestOfAFileEqualsThatOfItsBytesAcrossTheBlockSize) {
    EXPECT_EQ(sha256ForString("abc"),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    for (const size_t size : {1, 4095, 4096, 4097, 10000}) {
        SCOPED_TRACE(size);
        const std::string content(size, 'k');
        EXPECT_EQ(sha256ForFile(write("blob", content).c_str()), sha256ForString(content));
    }
}

TEST_F(FilesTest, EmptyFileHasADigestAndAnEmptyBufferHasNone) {
    EXPECT_EQ(sha256ForFile(write("empty", "").c_str()),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(sha256ForBuffer("", 0), "");
    EXPECT_EQ(sha256ForFile((m_directory.path() + "/missing").c_str()), "");
}

TEST_F(FilesTest, WholeFilesAreReadAndEverythingElseIsRefused) {
    unsigned long size = 0;
    const UniqueMalloc<char> block(FileHelper::readFile(write("f", "hello").c_str(), &size));
    ASSERT_TRUE(block);
    EXPECT_EQ(std::string(block.get(), size), "hello");
    const std::string fifo = m_directory.path() + "/fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path : {fifo, m_directory.path(), m_directory.path() + "/missing"}) {
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
    const std::string path = m_directory.path() + "/lock";
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
    GlobalMutex unopened(m_directory.path() + "/missing/lock", true);
    EXPECT_FALSE(unopened.trylock());
}

// What others can plant under a name in a directory that they may write to. `victim` is the file
// that they are after.
struct Planted {
    const char* what;
    std::function<bool(const std::string& victim, const std::string& path)> plant;
};
const Planted kPlanted[] = {
    {"link", [](auto& victim, auto& path) { return ::symlink(victim.c_str(), path.c_str()) == 0; }},
    {"second name",
     [](auto& victim, auto& path) { return ::link(victim.c_str(), path.c_str()) == 0; }},
    {"pipe", [](auto&, auto& path) { return ::mkfifo(path.c_str(), 0600) == 0; }},
};

TEST_F(FilesTest, PlantedFilesAreNeitherLockedNorWritten) {
    for (const Planted& row : kPlanted) {
        SCOPED_TRACE(row.what);
        const TempDir directory;
        const std::string victim = directory.write("victim", "precious");
        const std::string path = directory.path() + "/thread.info";
        ASSERT_TRUE(row.plant(victim, path));
        // Somebody else has a pipe open at both ends, so that opening it would not wait.
        const UniqueFd planted(::open(path.c_str(), O_RDWR));
        GlobalMutex mutex(path, true);
        EXPECT_FALSE(mutex.isOpen());
        const std::string before = std::filesystem::current_path();
        std::filesystem::current_path(directory.path());
        ThreadUtils::saveThreadInfo("any");
        std::filesystem::current_path(before);
        EXPECT_EQ(FileHelper::getFileSize(victim), 8U);
    }
}

TEST_F(FilesTest, FilesOfOneNameAreOpenedAndThoseOfOthersOnlyWhereTheyMayBe) {
    const std::string path = m_directory.path() + "/file";
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
    // Root gives its file away; anybody else takes one that root has.
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
