#include "reporting/SnapshotServer.h"

#include "fakes/SocketChannel.h"
#include "protocol/src/InfoPackage.h"
#include "utils/Semaphore.h"

namespace kelm {
namespace {

constexpr auto kNever = 10min;  // no package but those that an event brings

// A tool; packages carry their number at both ends.
class Tool : public WireClient {
 public:
    using WireClient::WireClient;

    // The number of the next package; nothing if none comes, or one that is not whole.
    std::optional<int64_t> read() const {
        const auto package = std::make_unique<InfoPackage>();
        if (!readBytes(package.get(), sizeof(*package))) return std::nullopt;
        if (package->deviceCount != package->memTotalMB) return std::nullopt;
        return package->memTotalMB;
    }
    // Whether so many packages come, each later than the one before.
    bool reads(int number) const {
        std::optional<int64_t> last = 0;
        for (int i = 0; last && i < number; ++i) {
            const auto next = read();
            last = next > last ? next : std::nullopt;
        }
        return last.has_value();
    }
};

class SnapshotServerTest : public ::testing::Test {
 protected:
    void start(SnapshotServer::Limits limits) {
        const auto collect = [this](InfoPackage& package) {
            std::memset(static_cast<void*>(&package), 0, sizeof(package));
            package.memTotalMB = package.deviceCount = ++m_collected;
            if (m_onCollect) m_onCollect();
        };
        m_server = std::make_unique<SnapshotServer>(path(), collect, false, limits);
        m_server->start();
    }
    std::string path() const { return m_dir.path() + "/snapshot"; }

    TempDir m_dir;
    std::function<void()> m_onCollect;
    std::atomic<int> m_collected{0};
    std::unique_ptr<SnapshotServer> m_server;
};

TEST_F(SnapshotServerTest, EveryToolGetsAPackageWhenOneComesOrLeaves) {
    start({.period = kNever});
    Tool first(path());
    EXPECT_EQ(first.read(), 1);
    Tool second(path());
    EXPECT_EQ(first.read(), 2);
    EXPECT_EQ(second.read(), 2);
    second.hangUp();
    EXPECT_EQ(first.read(), 3);
    first.hangUp();
    EXPECT_EQ(Tool(path()).read(), 4) << "collected without a tool";
}

TEST_F(SnapshotServerTest, ToolsThatDoNotReadHoldUpNoOtherAndLoseNoPart) {
    start({.period = 1ms, .writing = kNever});
    const Tool sleepers[] = {Tool(path()), Tool(path()), Tool(path())};
    const Tool honest(path());  // last in the order in which they are written to
    EXPECT_TRUE(honest.reads(20));
    for (const Tool& sleeper : sleepers) {
        EXPECT_TRUE(sleeper.reads(2));
        EXPECT_TRUE(eventually([&] { return sleeper.read() > 20; })) << "forgotten";
    }
}

// The two below have no room for a package in the kernel, as on a system with a low limit.
TEST_F(SnapshotServerTest, ToolThatStopsInAPackageIsDisconnected) {
    start({.period = 1ms, .writing = 50ms, .sendBuffer = 1});
    const Tool mute(path());
    EXPECT_TRUE(eventually([&] { return mute.isDisconnected(); }));
    EXPECT_TRUE(Tool(path()).reads(10));
}

TEST_F(SnapshotServerTest, StopEndsAPackageThatIsNotRead) {
    start({.period = kNever, .writing = kNever, .sendBuffer = 1});
    const Tool mute(path());
    EXPECT_TRUE(eventually([&] { return mute.unread() > 0; }));
    EXPECT_TRUE(m_server->stop(10s));
    EXPECT_TRUE(mute.isDisconnected());
}

TEST_F(SnapshotServerTest, WordsOfAToolBringNoPackageAndEndAtALimit) {
    start({.period = kNever});
    Tool chatty(path());
    EXPECT_EQ(chatty.read(), 1);
    for (int i = 0; i < 64; ++i) {
        ASSERT_TRUE(chatty.sendBytes(std::string(1024, 'x')));
        EXPECT_TRUE(eventually([&] { return chatty.unsent() == 0; }));
    }
    EXPECT_FALSE(chatty.isDisconnected());
    EXPECT_EQ(Tool(path()).read(), 2);  // comes after all that was said
    (void)chatty.sendBytes("x");
    EXPECT_TRUE(eventually([&] { return chatty.isDisconnected(); }));
    EXPECT_LE(m_collected.load(), 3);
}

TEST_F(SnapshotServerTest, WordsOfAToolDoNotPutItsPackagesOff) {
    start({.period = 100ms});
    Tool chatty(path());
    EXPECT_EQ(chatty.read(), 1);
    int words = 0;
    while (words < 500 && !chatty.canReceive(20ms)) words += chatty.sendBytes("x") ? 1 : 500;
    EXPECT_LT(words, 500);
}

TEST_F(SnapshotServerTest, ToolBeyondTheLimitIsTurnedAwayUnlessAnotherDoesNotRead) {
    start({.period = 100ms, .tools = 1});
    const Tool first(path());
    std::atomic<bool> reads{true};
    auto reader = std::async(std::launch::async, [&] {
        while (reads) EXPECT_TRUE(first.read());
    });
    const Tool second(path());
    EXPECT_TRUE(eventually([&] { return second.isDisconnected(); }));
    reads = false;
    reader.wait();
    EXPECT_TRUE(eventually([&] { return Tool(path()).read().has_value(); }));
    EXPECT_TRUE(first.isDisconnected());
}

TEST_F(SnapshotServerTest, StopIsBoundedWhileACollectionHangs) {
    Semaphore hangs{0, 0};
    m_onCollect = [&] { hangs.wait(); };
    start({.period = kNever});
    const Tool tool(path());
    EXPECT_TRUE(eventually([&] { return m_collected.load() == 1; }));
    EXPECT_FALSE(m_server->stop(20ms));
    hangs.post();
    EXPECT_TRUE(m_server->stop(10s));
}

}  // namespace
}  // namespace kelm
