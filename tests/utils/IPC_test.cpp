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
using testing::HasSubstr;
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
    static void readByte(ConnectionBase& connection) {
        char byte = 0;
        connection.read(&byte, 1, nullptr);
    }
    std::shared_ptr<ConnectionUDS> listenOn(const std::string& path, int mode) const {
        auto listener = std::make_shared<ConnectionUDS>(channel.poller.get());
        listener->create(path, {mode, "", ""});
        listener->listen();
        return listener;
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
    EXPECT_EQ(nullptr, ConnectionBase::findConnection(1));
    EXPECT_EQ(1, std::make_shared<ConnectionUDS>(nullptr)->getSimulateFD());
    EXPECT_THAT([] { (void)ConnectionBase::getConnectionById(1); },
                ThrowsMessage<std::runtime_error>("Can't find connection for fd(1)"));
}

TEST_F(IPCTest, ClosedConnectionIsDestroyedAtTheNextWaitOrAtOnceWithoutPoller) {
    const RawPeer peer(channel.path);
    std::weak_ptr<ConnectionBase> accepted = channel.accept();
    ConnectionBase::close(1);
    EXPECT_FALSE(accepted.expired());
    EXPECT_FALSE(nextEvent());
    EXPECT_TRUE(accepted.expired());
    const RawPeer second(channel.path);
    accepted = channel.accept();
    channel.poller.reset();
    EXPECT_TRUE(accepted.expired());  // the poller closes what is on it
    auto alone = std::make_shared<ConnectionUDS>(nullptr);
    ConnectionBase::adopt(alone);
    const int number = alone->getSimulateFD();
    accepted = std::exchange(alone, nullptr);
    ConnectionBase::close(number);
    EXPECT_TRUE(accepted.expired());
}

TEST_F(IPCTest, PeersBeyondTheLastNumberAreTurnedAway) {
    std::vector<std::shared_ptr<ConnectionUDS>> all;
    while (auto connection = ConnectionUDS::tryMake(channel.poller.get())) {
        all.push_back(std::move(connection));
    }
    ASSERT_EQ(static_cast<size_t>(IPC::IPC_CONN_FD_MAX) - 1, all.size());
    const RawPeer peer(channel.path);
    channel.listener->refuse();
    EXPECT_EQ("", peer.receive(1));
    EXPECT_FALSE(isPollerAwake());
    all.pop_back();
    EXPECT_NE(nullptr, ConnectionUDS::tryMake(channel.poller.get()));
}

TEST_F(IPCTest, FailedAcceptRaisesAndLaterSucceeds) {
    const RawPeer peer(channel.path);
    auto connection = std::make_shared<ConnectionUDS>(channel.poller.get());
    rlimit old = {};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &old));
    const rlimit none = {0, old.rlim_max};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
    // Looked at when descriptors are to be had again.
    auto failure =
        std::async(std::launch::deferred, [&] { connection->accept(channel.listener.get()); });
    failure.wait();
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &old));
    EXPECT_THAT([&] { failure.get(); }, ThrowsMessage<std::runtime_error>("accept failed"));
    connection->accept(channel.listener.get());
    EXPECT_TRUE(connection->connected());
}

TEST_F(IPCTest, StaleSocketFileIsReplacedAndRemovedByItsListenerOnly) {
    const std::string path = channel.path + "2";
    std::ofstream(path) << "stale";
    const auto listener = listenOn(path, 0600);
    EXPECT_EQ(std::filesystem::perms(0600), std::filesystem::status(path).permissions());
    auto client = std::make_shared<ConnectionUDS>(nullptr);
    ASSERT_TRUE(client->connect(path));
    auto accepted = std::make_shared<ConnectionUDS>(channel.poller.get());
    accepted->accept(listener.get());
    accepted->close();
    EXPECT_TRUE(std::filesystem::exists(path));
    listener->close();
    listener->close();
    EXPECT_FALSE(std::filesystem::exists(path));
    client->close();
    EXPECT_FALSE(client->connect(path));
    EXPECT_FALSE(client->connected());
}

TEST_F(IPCTest, ReusedConnectionCarriesNothingOver) {
    auto client = std::make_shared<ConnectionUDS>(channel.poller.get());
    for (const char* sent : {"ab", "cd"}) {
        SCOPED_TRACE(sent);
        ASSERT_TRUE(client->connect(channel.path));
        EXPECT_TRUE(client->connected());
        const auto accepted = channel.accept();
        accepted->write(sent, 2);
        ASSERT_TRUE(nextEvent());
        EXPECT_EQ(client, event.connection);
        char byte = 0;
        int count = 0;
        client->read(&byte, 1, &count);  // the second byte stays in the connection
        EXPECT_EQ(sent[0], byte);
        client->blockPoller();
        client->shutdown();
        client->close();
        ConnectionBase::close(accepted->getSimulateFD());
    }
}

TEST_F(IPCTest, LongPathIsCutAlikeOnBothSides) {
    const std::string fits = channel.path + std::string(107 - channel.path.size(), 'x');
    for (const std::string& path : {fits, fits + "yyy"}) {
        SCOPED_TRACE(path.size());
        const auto listener = listenOn(path, 0660);
        EXPECT_TRUE(std::filesystem::exists(fits));
        EXPECT_TRUE(std::make_shared<ConnectionUDS>(nullptr)->connect(path));
        listener->close();
        EXPECT_FALSE(std::filesystem::exists(fits));
    }
}

TEST_F(IPCTest, EventsTellBytesAndHangUp) {
    EXPECT_FALSE(nextEvent());
    RawPeer peer(channel.path);
    ASSERT_TRUE(nextEvent());
    EXPECT_EQ(channel.listener, event.connection);
    auto connection = channel.accept();
    EXPECT_FALSE(nextEvent());
    peer.send("a");
    ASSERT_TRUE(nextEvent());
    EXPECT_EQ(connection, event.connection);
    EXPECT_TRUE(event.isReadable() && !event.isHungUp());
    readByte(*connection);
    peer.hangUp();
    ASSERT_TRUE(nextEvent());
    EXPECT_TRUE(event.isHungUp());
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

TEST_F(IPCTest, BlockedConnectionIsSilentAndDoesNotSpin) {
    RawPeer peer(channel.path);
    const auto connection = channel.accept();
    peer.send("ab");
    ASSERT_TRUE(nextEvent());
    readByte(*connection);  // the second byte waits in the connection
    connection->blockPoller();
    {
        const IPC::PollBlocker blocker(connection.get());
        peer.send("c");
        peer.hangUp();
        EXPECT_FALSE(isPollerAwake());
        EXPECT_FALSE(nextEvent());
    }
    EXPECT_TRUE(isPollerAwake());
    ASSERT_TRUE(nextEvent());
    EXPECT_EQ(connection, event.connection);
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

TEST_F(IPCTest, PostedCallableThatThrowsLeavesTheOthersRunning) {
    bool ran = false;
    channel.poller->post([] { throw std::runtime_error("broken"); });
    channel.poller->post([&] { ran = true; });
    EXPECT_FALSE(nextEvent());
    EXPECT_TRUE(ran);
}

TEST_F(IPCTest, StepsOutOfOrderRaise) {
    ConnectionUDS& listener = *channel.listener;
    ConnectionUDS fresh(nullptr);
    const struct {
        std::function<void()> step;
        const char* words;
    } rows[] = {
        {[&] {
             listener.create(channel.path, {0660, "", ""});
         },
         "state is not EMPTY when create()"},
        {[&] { listener.accept(&listener); }, "state is not EMPTY when connect()"},
        {[&] { fresh.accept(nullptr); }, "listener is null"},
        {[&] { fresh.write("a", 1); }, "invalid argument: m_fd=-1 buffer="},
    };
    for (const auto& row : rows) {
        EXPECT_THAT(row.step, ThrowsMessage<std::runtime_error>(HasSubstr(row.words)));
    }
}

}  // namespace
