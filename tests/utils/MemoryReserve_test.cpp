// Sanitizers need more addresses than a limit would leave.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

#include "utils/MemoryReserve.h"

#include <sys/resource.h>

namespace kelm {
namespace {

using namespace std::chrono_literals;
using Blocks = std::vector<std::unique_ptr<char[]>>;

constexpr size_t kBlock = 64 << 10;

// What `new` gives until it fails.
void takeAll(Blocks& blocks) {
    const MemoryReserve::Patience none(MemoryReserve::kNoWait);
    try {
        while (blocks.size() < blocks.capacity()) blocks.emplace_back(new char[kBlock]);
    } catch (const std::bad_alloc&) {
    }
}

size_t countBytes() {
    Blocks blocks;
    blocks.reserve(1024);
    takeAll(blocks);
    return blocks.size() * kBlock;
}

// From here on the process gets no more addresses than it has.
void endGrowth() {
    std::ifstream file("/proc/self/statm");
    rlim_t pages = 0;
    file >> pages;
    const rlim_t bytes = pages * static_cast<rlim_t>(::getpagesize());
    const rlimit limit{bytes, RLIM_INFINITY};
    if (::setrlimit(RLIMIT_AS, &limit) != 0) std::_Exit(2);
}

class MemoryReserveTest : public testing::Test {
 protected:
    // A process of its own: what tests before it have freed would be there still.
    MemoryReserveTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(MemoryReserveTest, IsGivenUpWhenMemoryIsMissingAndTakenBackLater) {
    const auto play = [] {
        MemoryReserve::install();
        endGrowth();
        const size_t first = countBytes();
        MemoryReserve::renew();
        const size_t second = countBytes();
        constexpr size_t kMost = MemoryReserve::kBytes / 2;
        std::_Exit(first > kMost && second > kMost ? 0 : 1);
    };
    EXPECT_EXIT(play(), testing::ExitedWithCode(0), "");
}

TEST_F(MemoryReserveTest, WaitsUntilMemoryIsFreed) {
    const auto play = [] {
        MemoryReserve::install();
        Blocks all;
        all.reserve(1024);
        std::atomic<bool> isTaken = false;
        std::atomic<bool> isFree = false;
        std::thread([&] {
            while (!isTaken) std::this_thread::sleep_for(1ms);
            std::this_thread::sleep_for(100ms);
            isFree = true;
            all.clear();
        }).detach();
        endGrowth();
        takeAll(all);
        isTaken = true;
        const auto block = std::make_unique<char[]>(kBlock);
        std::_Exit(isFree && block ? 0 : 1);
    };
    EXPECT_EXIT(play(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace kelm

#endif
