#include "utils/Tracer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <thread>

#include "fakes/TempDir.h"
#include "utils/AppendOnlyFile.h"
#include "utils/CsvObjWriter.h"
#include "utils/ThreadUtils.h"

namespace kelm {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using Lines = std::vector<std::string>;

std::string readText(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

Lines splitAt(char end, const std::string& whole) {
    std::istringstream text(whole);
    Lines parts;
    for (std::string part; std::getline(text, part, end);) parts.push_back(part);
    return parts;
}

// The files of the tracer in a directory of their own.
class TracerTest : public ::testing::Test {
 protected:
    ~TracerTest() override { disableTracer(); }

    // The rows of a file without its first line, which is checked.
    Lines rows(const char* word, const char* header) const {
        Lines lines = splitAt(
            '\n', readText(m_directory.path() + "/kelm-" + std::to_string(::getpid()) + "-" + word +
                           "-hostname-" + ThreadUtils::getHostname() + ".csv"));
        EXPECT_EQ(lines.at(0), header);
        lines.erase(lines.begin());
        return lines;
    }
    Lines frames() const { return rows("frames", "name,start_tsc.RDTSC,end_tsc"); }
    Lines tasks() const { return rows("tasks", "name,start_tsc.RDTSC,end_tsc,pid,tid"); }

    TempDir m_directory;
    ScopedEnv m_tmpDir{"TMPDIR", m_directory.path()};
};

TEST_F(TracerTest, SwitchedOffItMakesNoHandlesOrFiles) {
    EXPECT_EQ(traceBegin("task_", 1), 0U);
    EXPECT_EQ(TraceBeginCsv("task_2"), 0U);
    testing::internal::CaptureStdout();
    TraceEndCsv(0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_TRUE(std::filesystem::is_empty(m_directory.path()));
}

TEST_F(TracerTest, RowsOfManyThreadsAreEachWrittenOnce) {
    constexpr int kThreads = 8;
    constexpr int kOperations = 12500;  // some 5 MB in all, so that buffers fill before their time
    enableTracer();
    std::vector<std::thread> threads;
    std::vector<std::string> threadIds(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([i, &threadIds] {
            threadIds[static_cast<size_t>(i)] = std::to_string(ThreadUtils::getThreadId());
            for (int k = 0; k < kOperations; k += 2) {
                const uint64_t outer = traceBegin("operation_", i, "_", k);
                const uint64_t inner = traceBegin("operation_", i, "_", k + 1);
                TraceEndCsv(outer);
                TraceEndCsv(inner);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    disableTracer();

    std::map<std::string, std::string> inFrames;
    for (const std::string& row : frames()) {
        const Lines fields = splitAt(',', row);
        ASSERT_EQ(fields.size(), 3U) << row;
        EXPECT_TRUE(inFrames.emplace(fields[0], row).second) << row;
    }
    ASSERT_EQ(inFrames.size(), static_cast<size_t>(kThreads * kOperations));
    size_t count = 0;
    for (const std::string& row : tasks()) {
        const Lines fields = splitAt(',', row);
        ASSERT_EQ(fields.size(), 5U) << row;
        ASSERT_EQ(inFrames[fields[0]], fields[0] + "," + fields[1] + "," + fields[2]);
        ASSERT_LE(std::stoull(fields[1]), std::stoull(fields[2]));
        ASSERT_EQ(fields[3], std::to_string(::getpid()));
        ASSERT_EQ(fields[4], threadIds[fields[0][std::string("operation_").size()] - '0']);
        ++count;
    }
    EXPECT_EQ(count, inFrames.size());
}

TEST_F(TracerTest, SecondEndIsRefusedAndObjectsAreUsedAgain) {
    enableTracer();
    const uint64_t open = TraceBeginCsv("open");
    const uint64_t once = TraceBeginCsv("an operation with quite a long name");
    testing::internal::CaptureStdout();
    std::thread([once] { TraceEndCsv(once); }).join();
    TraceEndCsv(once);
    TraceEndCsv(987654321);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_THAT(log, HasSubstr("Error: cannot find csvObj with id(" + std::to_string(once) + ")"));
    EXPECT_THAT(log, HasSubstr("Error: cannot find csvObj with id(987654321)"));
    EXPECT_NE(CsvObj::fetchCsvObject(open), nullptr);
    EXPECT_EQ(CsvObj::fetchCsvObject(once), nullptr);
    std::string threadId;
    std::thread([&] {
        threadId = std::to_string(ThreadUtils::getThreadId());
        EXPECT_EQ(TraceBeginCsv("next"), once);
    }).join();
    const std::shared_ptr<CsvObj> reused = CsvObj::fetchCsvObject(once);
    ASSERT_NE(reused, nullptr);
    EXPECT_EQ(reused->getOperation(), "next");
    EXPECT_EQ(reused->getTid(), threadId);
    EXPECT_EQ(reused->getEndTsc(), 0U);
    disableTracer();
    EXPECT_EQ(tasks().size(), 1U);  // an operation that is never ended is in no file
}

TEST_F(TracerTest, FailureIsLoggedOnceAndItsRowsAreDropped) {
    CsvObjWriter::Output output(m_directory.path() + "/missing/file.csv", "header\n");
    testing::internal::CaptureStdout();
    for (int i = 0; i < 3; ++i) {
        (void)output.append("lost", "\n");
        output.save();
    }
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(log.find("cannot write to"), log.rfind("cannot write to"));
    EXPECT_THAT(log, HasSubstr("No such file or directory"));
    ASSERT_TRUE(std::filesystem::create_directory(m_directory.path() + "/missing"));
    (void)output.append("kept", "\n");
    output.save();
    EXPECT_EQ(readText(m_directory.path() + "/missing/file.csv"), "kept\n");
}

TEST_F(TracerTest, SlowDiskCostsRowsBeyondTheLimit) {
    const std::string path = m_directory.path() + "/missing/file.csv";
    const std::string line((1 << 16) - 1, 'x');
    CsvObjWriter::Output output(path, "");
    int wakeUps = 0;
    for (int i = 0; i < 129 * 16; ++i) wakeUps += output.append(line, "\n") ? 1 : 0;
    EXPECT_EQ(wakeUps, 1);
    testing::internal::CaptureStdout();
    output.save();
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("16 lines for " + path));
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
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small{10, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(file.append("second\n"));
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), Not(HasSubstr("part of the text stays")));
    EXPECT_TRUE(file.append("third\n"));
    EXPECT_EQ(readText(path), "first\nthird\n");
}

}  // namespace
}  // namespace kelm
