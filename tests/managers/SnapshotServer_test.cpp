#include "reporting/SnapshotServer.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <atomic>
#include <cstring>
#include <future>
#include <memory>
#include <optional>

#include "fakes/Eventually.h"
#include "fakes/RawClient.h"
#include "fakes/TempDir.h"
#include "protocol/src/InfoPackage.h"

namespace kelm {

namespace {

using namespace std::chrono_literals;

constexpr auto kNever = 10min;  // no package but those that an event brings

// A tool; packages carry their number at both ends.
class Tool {
 public:
    explicit Tool(const std::string& path) : m_socket(path) {}

    // The number of the next package; nothing if none comes, or one that is not whole.
    std::optional<int64_t> read() {
        auto package = std::make_unique<InfoPackage>();
        if (!m_socket.readBytes(package.get(), sizeof(*package))) return std::nullopt;
        if (package->deviceCount != package->memTotalMB) return std::nullopt;
        return package->memTotalMB;
    }
    bool say(size_t bytes) {
        const std::string words(bytes, 'x');
        return m_socket.sendBytes(words.data(), words.size());
    }
    void hangUp() { m_socket.close(); }

    bool isReadable(int millisec = 0) const { return (look(POLLIN, millisec) & POLLIN) != 0; }
    bool isDisconnected() const { return (look(0, 0) & POLLHUP) != 0; }
    // Bytes that wait for the tool, and those of the tool that the server has not read.
    size_t unread() const { return ask(FIONREAD); }
    size_t unsent() const { return ask(TIOCOUTQ); }

 private:
    short look(short events, int millisec) const {
        pollfd state{m_socket.fd(), events, 0};
        return ::poll(&state, 1, millisec) == 1 ? state.revents : short{0};
    }
    size_t ask(unsigned long what) const {
        int bytes = 0;
        EXPECT_EQ(::ioctl(m_socket.fd(), what, &bytes), 0);
        return static_cast<size_t>(bytes);
    }

    RawClient m_socket;
};

class SnapshotServerTest : public ::testing::Test {
 protected:
    void make(SnapshotServer::Limits limits) {
        const auto collect = [this](InfoPackage& package) {
            std::memset(static_cast<void*>(&package), 0, sizeof(package));
            package.memTotalMB = package.deviceCount = ++m_collected;
            if (m_onCollect) m_onCollect();
        };
        m_server = std::make_unique<SnapshotServer>(path(), collect, false, limits);
    }
    void start(SnapshotServer::Limits limits) {
        make(limits);
        m_server->start();
    }
    std::string path() const { return m_dir.path() + "/snapshot"; }

    TempDir m_dir;
    std::function<void()> m_onCollect;
    std::atomic<int> m_collected{0};
    std::unique_ptr<SnapshotServer> m_server;
};

}  // namespace

TEST_F(SnapshotServerTest, EverybodyGetsAPackageWhenAToolComesOrGoes) {
    start({.period = kNever});
    Tool first(path());
    EXPECT_EQ(first.read(), 1);
    Tool second(path());
    EXPECT_EQ(first.read(), 2);
    EXPECT_EQ(second.read(), 2);
    second.hangUp();
    EXPECT_EQ(first.read(), 3);
    first.hangUp();
    Tool third(path());
    EXPECT_EQ(third.read(), 4) << "collected for nobody";
}

TEST_F(SnapshotServerTest, ToolsThatDoNotReadHoldUpNobodyAndLoseNoPart) {
    make({.period = 1ms, .writing = kNever});
    Tool sleepers[] = {Tool(path()), Tool(path()), Tool(path())};
    Tool honest(path());  // the last one, whom a server that writes to one after another forgets
    m_server->start();
    std::optional<int64_t> last = 0;
    while (last && *last < 20) {
        const std::optional<int64_t> next = honest.read();
        EXPECT_GT(next, last);
        last = next;
    }
    ASSERT_TRUE(last);
    for (Tool& sleeper : sleepers) {
        EXPECT_EQ(sleeper.read(), 1);
        EXPECT_TRUE(eventually([&] { return sleeper.read() > 20; })) << "forgotten";
    }
}

// The two below have no room for a package in the kernel, as on a system with a low limit.
TEST_F(SnapshotServerTest, ToolThatStopsInAPackageIsDisconnected) {
    start({.period = 1ms, .writing = 50ms, .sendBuffer = 1});
    const Tool mute(path());
    EXPECT_TRUE(eventually([&] { return mute.isDisconnected(); }));
    Tool honest(path());
    std::optional<int64_t> last = 0;
    for (int i = 0; i < 10; ++i) {
        const std::optional<int64_t> next = honest.read();
        EXPECT_GT(next, last);
        last = next;
    }
}

TEST_F(SnapshotServerTest, StopEndsAPackageThatNobodyReads) {
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
        ASSERT_TRUE(chatty.say(1024));
        EXPECT_TRUE(eventually([&] { return chatty.unsent() == 0; }));
    }
    EXPECT_FALSE(chatty.isDisconnected());
    Tool witness(path());  // comes after all that was said
    EXPECT_EQ(witness.read(), 2);
    (void)chatty.say(1);
    EXPECT_TRUE(eventually([&] { return chatty.isDisconnected(); }));
    EXPECT_EQ(m_collected.load(), 2);
}

TEST_F(SnapshotServerTest, WordsOfAToolDoNotPutItsPackagesOff) {
    start({.period = 100ms});
    Tool chatty(path());
    EXPECT_EQ(chatty.read(), 1);
    bool came = false;
    for (int i = 0; i < 500 && !came; ++i) {
        ASSERT_TRUE(chatty.say(1));
        came = chatty.isReadable(20);
    }
    EXPECT_TRUE(came);
}

TEST_F(SnapshotServerTest, ToolBeyondTheLimitIsTurnedAwayUnlessAnotherDoesNotRead) {
    start({.period = 100ms, .tools = 1});
    Tool first(path());
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

}  // namespace kelm
