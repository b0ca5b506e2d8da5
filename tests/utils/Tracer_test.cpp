#include "utils/Tracer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
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

Lines readLines(const std::string& path) {
    std::ifstream file(path);
    Lines lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
}

std::string readText(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

Lines split(const std::string& line) {
    std::istringstream text(line);
    Lines fields;
    for (std::string field; std::getline(text, field, ',');) fields.push_back(field);
    return fields;
}

// The files of the tracer in a directory of their own.
class TracerTest : public ::testing::Test {
 protected:
    ~TracerTest() override { disableTracer(); }

    std::string file(const char* word) const {
        return m_directory.path() + "/kelm-" + std::to_string(::getpid()) + "-" + word +
               "-hostname-" + ThreadUtils::getHostname() + ".csv";
    }
    // The rows of a file without its first line, which is checked.
    Lines rows(const char* word, const char* header) const {
        Lines lines = readLines(file(word));
        EXPECT_FALSE(lines.empty());
        if (lines.empty()) return {};
        EXPECT_EQ(lines.front(), header);
        lines.erase(lines.begin());
        return lines;
    }
    Lines frames() const { return rows("frames", "name,start_tsc.RDTSC,end_tsc"); }
    Lines tasks() const { return rows("tasks", "name,start_tsc.RDTSC,end_tsc,pid,tid"); }

    TempDir m_directory;
    ScopedEnv m_tmpDir{"TMPDIR", m_directory.path()};
};

TEST_F(TracerTest, SwitchedOffItMakesHandlesOrFiles) {
    EXPECT_EQ(traceBegin("task_", 1), 0U);
    EXPECT_EQ(TraceBeginCsv("task_2"), 0U);
    testing::internal::CaptureStdout();
    TraceEndCsv(0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_TRUE(std::filesystem::is_empty(m_directory.path()));
}

TEST_F(TracerTest, RowsOfManyThreadsAreLostTornOrDoubled) {
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
        const Lines fields = split(row);
        ASSERT_EQ(fields.size(), 3U) << row;
        EXPECT_TRUE(inFrames.emplace(fields[0], row).second) << row;
    }
    ASSERT_EQ(inFrames.size(), static_cast<size_t>(kThreads * kOperations));
    size_t count = 0;
    for (const std::string& row : tasks()) {
        const Lines fields = split(row);
        ASSERT_EQ(fields.size(), 5U) << row;
        ASSERT_EQ(inFrames[fields[0]], fields[0] + "," + fields[1] + "," + fields[2]);
        ASSERT_LE(std::stoull(fields[1]), std::stoull(fields[2]));
        ASSERT_EQ(fields[3], std::to_string(::getpid()));
        ASSERT_EQ(fields[4], threadIds[fields[0][std::string("operation_").size()] - '0']);
        ++count;
    }
    EXPECT_EQ(count, inFrames.size());
}

TEST_F(TracerTest, SecondEndOfAnOperationIsWrittenOrTakesAnother) {
    enableTracer();
    const uint64_t open = TraceBeginCsv("open");
    const uint64_t once = TraceBeginCsv("once");
    testing::internal::CaptureStdout();
    std::thread other([once] { TraceEndCsv(once); });
    TraceEndCsv(once);
    other.join();
    TraceEndCsv(987654321);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_THAT(log, HasSubstr("Error: cannot find csvObj with id(" + std::to_string(once) + ")"));
    EXPECT_THAT(log, HasSubstr("Error: cannot find csvObj with id(987654321)"));
    EXPECT_NE(CsvObj::fetchCsvObject(open), nullptr);
    disableTracer();
    ASSERT_EQ(tasks().size(), 1U);  // an operation that is never ended is in no file
    EXPECT_THAT(tasks()[0], HasSubstr("once,"));
}

TEST_F(TracerTest, ObjectsPileUpOrTellOfTheirFormerOperation) {
    enableTracer();
    const uint64_t handle = TraceBeginCsv("an operation with quite a long name");
    std::thread ender([handle] { TraceEndCsv(handle); });
    ender.join();
    EXPECT_EQ(CsvObj::fetchCsvObject(handle), nullptr);
    std::string threadId;
    std::thread next([&] {
        threadId = std::to_string(ThreadUtils::getThreadId());
        EXPECT_EQ(TraceBeginCsv("next"), handle);
    });
    next.join();
    const std::shared_ptr<CsvObj> reused = CsvObj::fetchCsvObject(handle);
    ASSERT_NE(reused, nullptr);
    EXPECT_EQ(reused->getOperation(), "next");
    EXPECT_EQ(reused->getTid(), threadId);
    EXPECT_EQ(reused->getEndTsc(), 0U);
}

TEST_F(TracerTest, FailureIsLoggedAtEverySaveOrRowsArePiledUp) {
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

TEST_F(TracerTest, SlowDiskCostsMemoryWithoutEnd) {
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

TEST_F(TracerTest, FileThatSomebodyPlantedIsWritten) {
    const std::string target = m_directory.write("target", "precious");
    const std::string path = m_directory.path() + "/trace.csv";
    struct Row {
        const char* what;
        std::function<int()> plant;
    };
    const Row rows[] = {
        {"link", [&] { return ::symlink(target.c_str(), path.c_str()); }},
        {"link to nowhere", [&] { return ::symlink((target + "2").c_str(), path.c_str()); }},
        {"second name", [&] { return ::link(target.c_str(), path.c_str()); }},
        {"pipe", [&] { return ::mkfifo(path.c_str(), 0666); }},
        {"directory", [&] { return ::mkdir(path.c_str(), 0777); }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_EQ(row.plant(), 0);
        AppendOnlyFile file(path);
        EXPECT_FALSE(file.append("text\n"));
        EXPECT_EQ(readText(target), "precious");
        EXPECT_FALSE(std::filesystem::exists(target + "2"));
        std::filesystem::remove(path);
        EXPECT_TRUE(file.append("text\n"));  // made anew once the way is free
        EXPECT_EQ(readText(path), "text\n");
        std::filesystem::remove(path);
    }
}

TEST_F(TracerTest, FileIsExchangedUnderTheWriter) {
    const std::string path = m_directory.write("trace.csv", "of an earlier process\n");
    AppendOnlyFile file(path);
    EXPECT_TRUE(file.append("first\n"));
    EXPECT_EQ(readText(path), "of an earlier process\nfirst\n");
    std::filesystem::rename(m_directory.write("another", "precious"), path);
    EXPECT_FALSE(file.append("second\n"));
    EXPECT_EQ(readText(path), "precious");
}

TEST_F(TracerTest, FullDiskLeavesPartOfALine) {
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
