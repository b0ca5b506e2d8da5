// The main of test programs whose cases need a process each, since the managers are built once in a
// process. ctest asks for one case at a time; a run by hand forks for each case that its filter
// lets through, and fails if one of them does.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr int kNoCase = 77;

// One shard of as many as there are cases is one case; the first empty one is the end.
[[noreturn]] void runShard(int index, int number) {
    ::setenv("GTEST_TOTAL_SHARDS", std::to_string(number).c_str(), 1);
    ::setenv("GTEST_SHARD_INDEX", std::to_string(index).c_str(), 1);
    const int status = RUN_ALL_TESTS();
    const bool ran = testing::UnitTest::GetInstance()->test_to_run_count() > 0;
    std::exit(status == 0 && !ran ? kNoCase : status);
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    const bool isOneCase = GTEST_FLAG_GET(filter).find_first_of("*?:-") == std::string::npos;
    if (isOneCase || GTEST_FLAG_GET(list_tests)) return RUN_ALL_TESTS();
    const int number = testing::UnitTest::GetInstance()->total_test_count();
    int failed = 0;
    int cases = 0;
    for (; cases < number; ++cases) {
        (void)std::fflush(stdout);
        const pid_t child = ::fork();
        if (child == 0) runShard(cases, number);
        int status = 1;
        (void)::waitpid(child, &status, 0);
        if (WIFEXITED(status) && WEXITSTATUS(status) == kNoCase) break;
        if (status != 0) ++failed;
    }
    std::printf("%d cases, each in its process; %d failed\n", cases, failed);
    return failed == 0 ? 0 : 1;
}
