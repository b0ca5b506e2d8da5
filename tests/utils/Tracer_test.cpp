#include "utils/Tracer.h"

#include <sys/resource.h>

#include <regex>

#include "utils/AppendOnlyFile.h"
#include "utils/CsvObjWriter.h"
#include "utils/ThreadUtils.h"

namespace kelm {
namespace {

// The files of the tracer in a directory of their own.
class TracerTest : public ::testing::Test {
 protected:
    ~TracerTest() override { disableTracer(); }

    std::vector<std::string> lines(const std::string& word) const {
        std::ifstream file(m_directory.path() + "/kelm-" + std::to_string(::getpid()) + "-" + word +
                           "-hostname-" + ThreadUtils::getHostname() + ".csv");
        std::vector<std::string> all;
        for (std::string line; std::getline(file, line);) all.push_back(line);
        return all;
    }

    TempDir m_directory;
    ScopedEnv m_tmpDir{"TMPDIR", m_directory.path()};
};

TEST_F(TracerTest, RowsOfManyThreadsAreEachWrittenOnce) {
    constexpr size_t kThreads = 4;
    constexpr size_t kOperations = 6000;  // so that buffers fill before their time
    EXPECT_EQ(TraceBeginCsv("switched off"), 0U);
    EXPECT_TRUE(std::filesystem::is_empty(m_directory.path()));
    enableTracer();
    std::vector<std::thread> threads;
    for (size_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([] {
            const std::string name = std::to_string(ThreadUtils::getThreadId()) + "_";
            for (size_t k = 0; k < kOperations; k += 2) {
                const uint64_t outer = traceBegin(name, k);
                const uint64_t inner = traceBegin(name, k + 1);
                TraceEndCsv(outer);
                TraceEndCsv(inner);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    disableTracer();

    std::set<std::string> frames;
    for (const std::string& row : lines("frames")) EXPECT_TRUE(frames.insert(row).second) << row;
    EXPECT_EQ(frames.size(), 1 + kThreads * kOperations);
    const std::regex format("(((\\d+)_\\d+),(\\d+),(\\d+)),(\\d+),(\\d+)");
    for (const std::string& row : lines("tasks")) {
        if (frames.erase("name,start_tsc.RDTSC,end_tsc") == 1) {
            EXPECT_EQ(row, "name,start_tsc.RDTSC,end_tsc,pid,tid");
            continue;
        }
        std::smatch parts;
        ASSERT_TRUE(std::regex_match(row, parts, format)) << row;
        ASSERT_EQ(frames.erase(parts[1]), 1U) << row;
        ASSERT_LE(std::stoull(parts[4]), std::stoull(parts[5]));
        ASSERT_EQ(parts[6], std::to_string(::getpid()));
        ASSERT_EQ(parts[7], parts[3]);
    }
    EXPECT_TRUE(frames.empty());
}

TEST_F(TracerTest, SecondEndIsRefusedAndObjectsAreUsedAgain) {
    enableTracer();
    (void)TraceBeginCsv("open");
    const uint64_t once = TraceBeginCsv("once");
    std::thread([once] { TraceEndCsv(once); }).join();
    for (const uint64_t id : {once, uint64_t{987654321}}) TraceEndCsv(id);
    EXPECT_EQ(TraceBeginCsv("next"), once);
    TraceEndCsv(once);
    disableTracer();
    const std::vector<std::string> tasks = lines("tasks");
    ASSERT_EQ(tasks.size(), 3U);  // an operation that is never ended is in no file
    EXPECT_THAT(tasks[1], StartsWith("once,"));
    EXPECT_THAT(tasks[2], StartsWith("next,"));
}

TEST_F(TracerTest, SlowOrFailingDiskCostsRows) {
    const std::string path = m_directory.path() + "/missing/file.csv";
    const std::string line((1 << 16) - 1, 'x');
    CsvObjWriter::Output output(path, "");
    int wakeUps = 0;
    for (int i = 0; i < 129 * 16; ++i) wakeUps += output.append(line, "\n") ? 1 : 0;
    EXPECT_EQ(wakeUps, 1);
    testing::internal::CaptureStdout();
    output.save();
    (void)output.append("lost", "\n");
    output.save();
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_THAT(log, HasSubstr("16 lines for " + path));
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2) << log;  // each failure is told once
    m_directory.write("missing/file.csv", "");
    (void)output.append("kept", "\n");
    output.save();
    EXPECT_EQ(readText(path), "kept\n");
}

TEST_F(TracerTest, FilesOfOthersAreNotWritten) {
    const std::string path = m_directory.write("trace.csv", "of an earlier process\n");
    AppendOnlyFile file(path);
    EXPECT_TRUE(file.append("first\n"));
    EXPECT_EQ(readText(path), "of an earlier process\nfirst\n");
    std::filesystem::rename(m_directory.write("another", "precious"), path);
    EXPECT_FALSE(file.append("second\n"));
    EXPECT_EQ(readText(path), "precious");
    std::filesystem::remove(path);
    EXPECT_TRUE(file.append("third\n"));  // made anew once the way is free
    EXPECT_EQ(readText(path), "third\n");
    const std::string second = m_directory.path() + "/second.csv";
    std::filesystem::create_hard_link(path, second);
    EXPECT_FALSE(AppendOnlyFile(second).append("fourth\n"));
    EXPECT_EQ(readText(path), "third\n");
}

TEST_F(TracerTest, FullDiskLeavesNoPartOfALine) {
    const std::string path = m_directory.path() + "/trace.csv";
    AppendOnlyFile file(path);
    ASSERT_TRUE(file.append("first\n"));
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small{10, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    EXPECT_FALSE(file.append("second\n"));
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_TRUE(file.append("third\n"));
    EXPECT_EQ(readText(path), "first\nthird\n");
}

}  // namespace
}  // namespace kelm
