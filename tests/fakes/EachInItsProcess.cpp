// The main of test programs whose cases need a process each, since the managers are built once in a
// process. ctest asks for one case at a time; a run by hand forks for each case that there is.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    const bool isOneCase = GTEST_FLAG_GET(filter).find_first_of("*?:-") == std::string::npos;
    if (isOneCase || GTEST_FLAG_GET(list_tests)) return RUN_ALL_TESTS();
    const int number = testing::UnitTest::GetInstance()->total_test_count();
    ::setenv("GTEST_TOTAL_SHARDS", std::to_string(number).c_str(), 1);
    int failed = 0;
    for (int i = 0; i < number; ++i) {  // where a filter leaves fewer, the last ones do nothing
        ::setenv("GTEST_SHARD_INDEX", std::to_string(i).c_str(), 1);
        (void)std::fflush(stdout);
        if (::fork() == 0) return RUN_ALL_TESTS();
        int status = 1;
        (void)::wait(&status);
        if (status != 0) ++failed;
    }
    std::printf("%d cases, each in its process; %d failed\n", number, failed);
    return failed == 0 ? 0 : 1;
}
