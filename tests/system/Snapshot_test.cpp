#include <atomic>
#include <deque>
#include <thread>

#include "client/SnapshotReader.h"
#include "protocol/src/InfoPackage.h"
#include "system/SystemFixture.h"

namespace kelm {
namespace {

using client::SnapshotReader;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

class SnapshotTest : public SystemFixture {
 protected:
    std::string socket() { return service().runDir() + "/kelm_snapshot.sock"; }
    std::unique_ptr<SnapshotReader> connectReader() {
        auto reader = SnapshotReader::connect(socket());
        if (!reader) throw std::runtime_error(reader.error().text());
        return std::move(reader.value());
    }
    // Empty when a package comes in time that tells of the service.
    static std::string read(SnapshotReader& reader) {
        const auto snapshot = reader.read();
        if (!snapshot) return snapshot.error().text();
        const bool whole =
            snapshot.value().devices.size() == 3 && snapshot.value().memory.totalMB > 0;
        return whole ? "" : "not of this service";
    }
};

TEST_F(SnapshotTest, ToolThatDoesNotReadHoldsUpOthersOrTheEnd) {
    constexpr int kIdle = 40;
    start(0);
    std::atomic<int> packages{0};
    std::atomic<double> longestWait{0};
    std::thread tool([&, reader = connectReader()] {
        auto last = Clock::now();
        while (read(*reader).empty()) {
            const auto now = Clock::now();
            longestWait = std::max(longestWait.load(), Seconds(now - last).count());
            last = now;
            ++packages;
        }
    });
    EXPECT_TRUE(eventually([&] { return packages > 0; }));
    std::deque<RawClient> idle;
    for (int i = 0; i < kIdle; ++i) idle.emplace_back(socket());
    const int before = packages;
    EXPECT_TRUE(eventually([&] { return packages > before; }, std::chrono::seconds(4)));
    EXPECT_TRUE(serves());
    // Once nobody comes or goes any more the next one takes its time, but not for ever.
    EXPECT_TRUE(eventually([&] { return longestWait > 3; }, std::chrono::seconds(30)));
    EXPECT_LT(longestWait, 9.0);

    for (int i = 0; i < kIdle; ++i) idle.emplace_back(socket());
    endService();
    tool.join();
    EXPECT_TRUE(idle.back().waitClosed());
}

TEST_F(SnapshotTest, ToolThatWritesHoldsUpOthersOrTakesACore) {
    start(0);
    RawClient flooding(socket());
    RawClient chatting(socket());
    ASSERT_TRUE(chatting.sendBytes("?", 1));
    std::thread flood([&] {
        const std::string bytes(65536, 'x');
        while (flooding.sendBytes(bytes.data(), bytes.size())) {
        }
    });
    const auto reader = connectReader();
    const auto begin = Clock::now();
    const double timeBefore = processorTime();
    int packages = 0;
    std::string lost;
    for (; lost.empty() && Clock::now() < begin + std::chrono::seconds(3); ++packages) {
        lost = read(*reader);
    }
    EXPECT_EQ(lost, "");
    EXPECT_LT(packages, 60);
    EXPECT_LT(processorTime() - timeBefore, Seconds(Clock::now() - begin).count() / 2);
    EXPECT_TRUE(serves());
    endService();
    flood.join();
}

TEST_F(SnapshotTest, ToolsThatComeAndGoLeaveSomethingBehind) {
    constexpr int kReaders = 100;
    constexpr int kVanishing = 200;
    start(0);
    ASSERT_EQ(read(*connectReader()), "");
    ASSERT_TRUE(serves());
    const size_t before = descriptors();
    std::atomic<int> served{0};
    std::vector<std::thread> tools;
    for (int i = 0; i < kReaders; ++i) {
        tools.emplace_back([&] {  // who finds no place comes again
            const auto getsOne = [&] {
                const auto reader = SnapshotReader::connect(socket());
                return reader && read(*reader.value()).empty();
            };
            if (eventually(getsOne, std::chrono::minutes(1))) ++served;
        });
    }
    for (std::thread& tool : tools) tool.join();
    EXPECT_EQ(served, kReaders);
    for (int i = 0; i < kVanishing; ++i) {
        RawClient tool(socket());
        char byte = 0;
        if (i % 8 == 0) (void)tool.readBytes(&byte, 1);  // in the middle of a package
    }
    ASSERT_EQ(read(*connectReader()), "");
    EXPECT_TRUE(eventually([&] { return descriptors() <= before; })) << descriptors();
    EXPECT_TRUE(serves());
}

}  // namespace
}  // namespace kelm
