#include "utils/IPC.h"

#include <poll.h>
#include <sys/resource.h>

#include "fakes/SocketChannel.h"

namespace {

using IPC::ConnectionBase;
using IPC::ConnectionUDS;
using IPC::PollEvent;
using kelm::RawPeer;
using kelm::SocketChannel;
using testing::ThrowsMessage;

class IPCTest : public testing::Test {
 protected:
    // Whether something has come; `event` tells what.
    bool nextEvent() {
        event.clear();
        return channel.poller->wait(&event, 0);
    }
    // Whether the kernel would wake a wait at once.
    bool isPollerAwake() const {
        pollfd entry = {channel.poller->nativeHandle(), POLLIN, 0};
        return ::poll(&entry, 1, 0) == 1;
    }
    static char readByte(ConnectionBase& connection) {
        char byte = 0;
        int count = 0;
        connection.read(&byte, 1, &count);
        return byte;
    }

    SocketChannel channel;
    PollEvent event;
};

TEST_F(IPCTest, NumberIsFreeOnceTheLastShareIsReleased) {
    ASSERT_EQ(0, channel.listener->getSimulateFD());
    const RawPeer peer(channel.path);
    auto held = channel.accept();
    ASSERT_EQ(1, held->getSimulateFD());
    ConnectionBase::close(1);
    EXPECT_FALSE(nextEvent());
    EXPECT_EQ(2, std::make_shared<ConnectionUDS>(nullptr)->getSimulateFD());
    EXPECT_EQ(held, ConnectionBase::findConnection(1));
    held.reset();
    EXPECT_EQ(1, std::make_shared<ConnectionUDS>(nullptr)->getSimulateFD());
    EXPECT_THAT([] { (void)ConnectionBase::getConnectionById(1); },
                ThrowsMessage<std::runtime_error>("Can't find connection for fd(1)"));
}

TEST_F(IPCTest, ClosedConnectionIsDestroyedAtTheNextWaitOrAtOnceWithoutPoller) {
    const RawPeer peer(channel.path);
    std::weak_ptr<ConnectionBase> closed = channel.accept();
    ConnectionBase::close(1);
    EXPECT_FALSE(closed.expired());
    EXPECT_FALSE(nextEvent());
    EXPECT_TRUE(closed.expired());
    const RawPeer second(channel.path);
    closed = channel.accept();
    channel.poller.reset();
    EXPECT_TRUE(closed.expired());  // the poller closes what is on it
    auto alone = std::make_shared<ConnectionUDS>(nullptr);
    ConnectionBase::adopt(alone);
    closed = alone;
    ConnectionBase::close(std::exchange(alone, nullptr)->getSimulateFD());
    EXPECT_TRUE(closed.expired());
}

// The second path is too long and is cut to the first one, by both sides.
TEST_F(IPCTest, StaleSocketFileIsReplacedAndRemovedByItsListenerOnly) {
    const std::string fits = channel.path + std::string(107 - channel.path.size(), 'x');
    for (const std::string& path : {fits, fits + "yyy"}) {
        SCOPED_TRACE(path.size());
        std::ofstream(fits) << "stale";
        const auto listener = std::make_shared<ConnectionUDS>(channel.poller.get());
        listener->create(path, {0600, "", ""});
        listener->listen();
        EXPECT_EQ(std::filesystem::perms(0600), std::filesystem::status(fits).permissions());
        const auto client = std::make_shared<ConnectionUDS>(nullptr);
        ASSERT_TRUE(client->connect(path));
        const auto accepted = std::make_shared<ConnectionUDS>(channel.poller.get());
        accepted->accept(listener.get());
        EXPECT_ANY_THROW(accepted->accept(listener.get()));  // it has a socket
        accepted->close();
        EXPECT_TRUE(std::filesystem::exists(fits));
        listener->close();
        EXPECT_FALSE(std::filesystem::exists(fits));
        client->close();
        EXPECT_FALSE(client->connect(path));
        EXPECT_FALSE(client->connected());
    }
}

TEST_F(IPCTest, DescriptorBeyondTheFastMapWorksToo) {
    rlimit limit = {};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
    const RawPeer peer(channel.path);
    std::vector<kelm::UniqueFd> low;
    do {
        low.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    } while (low.back() && low.back().get() < 1024);
    ASSERT_TRUE(low.back()) << "too few descriptors allowed";
    const auto connection = channel.accept();
    ASSERT_GT(connection->nativeHandle(), 1024);
    peer.send("a");
    ASSERT_TRUE(nextEvent());
    EXPECT_EQ(connection, event.connection);
    channel.poller->remove(connection.get());
    channel.poller->remove(connection.get());
    EXPECT_FALSE(nextEvent());
    ConnectionBase::close(connection->getSimulateFD());  // the poller does not do it any more
}

TEST_F(IPCTest, EventsTellBytesAndHangUpUnlessBlocked) {
    EXPECT_FALSE(nextEvent());
    RawPeer peer(channel.path);
    ASSERT_TRUE(nextEvent());
    EXPECT_EQ(channel.listener, event.connection);
    const auto connection = channel.accept();
    EXPECT_FALSE(nextEvent());
    peer.send("ab");
    ASSERT_TRUE(nextEvent());
    EXPECT_EQ(connection, event.connection);
    EXPECT_TRUE(event.isReadable() && !event.isHungUp());
    readByte(*connection);  // the second byte waits in the connection
    connection->blockPoller();
    peer.send("c");
    peer.hangUp();
    EXPECT_FALSE(isPollerAwake());
    EXPECT_FALSE(nextEvent());
    connection->unblockPoller();
    EXPECT_TRUE(isPollerAwake());
    ASSERT_TRUE(nextEvent());
    EXPECT_EQ(connection, event.connection);
    readByte(*connection);
    readByte(*connection);
    ASSERT_TRUE(nextEvent());
    EXPECT_TRUE(event.isHungUp());
}

TEST_F(IPCTest, BufferedBytesCountAsReadyAndStarveNobody) {
    const RawPeer busy(channel.path);
    const auto first = channel.accept();
    const RawPeer quiet(channel.path);
    const auto second = channel.accept();
    busy.send(std::string(100, 'a'));
    readByte(*first);
    EXPECT_EQ(0, RawPeer::pendingOn(first->nativeHandle()));
    quiet.send("bb");
    int eventsOfFirst = 0;
    while (nextEvent() && event.connection == first) {
        ++eventsOfFirst;
        readByte(*first);
    }
    EXPECT_EQ(second, event.connection);
    EXPECT_GT(eventsOfFirst, 0);
    EXPECT_LE(eventsOfFirst, 8);
    readByte(*second);  // both have bytes in their buffers now: they take turns
    ASSERT_TRUE(nextEvent());
    const auto before = event.connection;
    readByte(*before);
    ASSERT_TRUE(nextEvent());
    EXPECT_NE(before, event.connection);
    while (nextEvent()) readByte(*event.connection);
    EXPECT_FALSE(first->hasBufferedData());
}

}  // namespace
