#include "utils/IPC.h"

#include <poll.h>
#include <sys/resource.h>

#include "fakes/Eventually.h"
#include "fakes/SocketChannel.h"

namespace {

using IPC::ConnectionBase;
using IPC::ConnectionUDS;
using IPC::PollEvent;
using kelm::countDescriptors;
using kelm::eventually;
using kelm::RawPeer;
using kelm::SocketChannel;
using testing::HasSubstr;
using testing::ThrowsMessage;

bool nextEvent(SocketChannel& channel, PollEvent& event, int timeout = 0) {
    event.clear();
    return channel.poller->wait(&event, timeout);
}

// Whether the kernel would wake a wait at once.
bool isPollerAwake(const SocketChannel& channel) {
    pollfd entry = {channel.poller->nativeHandle(), POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1;
}

void readByte(ConnectionBase& connection) {
    char byte = 0;
    connection.read(&byte, 1, nullptr);
}

TEST(IPCTest, NumberIsFreeOnlyWhenTheLastHolderIsGone) {
    SocketChannel channel;
    ASSERT_EQ(0, channel.listener->getSimulateFD());
    const RawPeer peer(channel.path);
    auto held = channel.accept();
    ASSERT_EQ(1, held->getSimulateFD());
    ConnectionBase::close(1);
    PollEvent event;
    EXPECT_FALSE(nextEvent(channel, event));
    EXPECT_EQ(2, std::make_shared<ConnectionUDS>(nullptr)->getSimulateFD());
    EXPECT_EQ(held, ConnectionBase::findConnection(1));
    held.reset();
    EXPECT_EQ(nullptr, ConnectionBase::findConnection(1));
    EXPECT_EQ(1, std::make_shared<ConnectionUDS>(nullptr)->getSimulateFD());
    EXPECT_THAT([] { (void)ConnectionBase::getConnectionById(1); },
                ThrowsMessage<std::runtime_error>("Can't find connection for fd(1)"));
}

TEST(IPCTest, ClosedConnectionGoesAtTheNextWaitOrAtOnceWithoutPoller) {
    SocketChannel channel;
    const RawPeer peer(channel.path);
    std::weak_ptr<ConnectionBase> accepted = channel.accept();
    ConnectionBase::close(1);
    EXPECT_FALSE(accepted.expired());
    PollEvent event;
    EXPECT_FALSE(nextEvent(channel, event));
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

TEST(IPCTest, PeersBeyondTheLastNumberAreTurnedAway) {
    SocketChannel channel;
    std::vector<std::shared_ptr<ConnectionUDS>> all;
    while (auto connection = ConnectionUDS::tryMake(channel.poller.get())) {
        all.push_back(std::move(connection));
    }
    ASSERT_EQ(static_cast<size_t>(IPC::IPC_CONN_FD_MAX) - 1, all.size());
    const RawPeer peer(channel.path);
    channel.listener->refuse();
    EXPECT_EQ("", peer.receive(1));
    EXPECT_FALSE(isPollerAwake(channel));
    all.pop_back();
    EXPECT_NE(nullptr, ConnectionUDS::tryMake(channel.poller.get()));
}

TEST(IPCTest, FailedAcceptRaisesAndLaterSucceeds) {
    SocketChannel channel;
    const RawPeer peer(channel.path);
    auto connection = std::make_shared<ConnectionUDS>(channel.poller.get());
    rlimit old = {};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &old));
    const rlimit none = {0, old.rlim_max};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
    std::exception_ptr failure;  // looked at when descriptors are to be had again
    try {
        connection->accept(channel.listener.get());
    } catch (...) {
        failure = std::current_exception();
    }
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &old));
    ASSERT_TRUE(failure);
    EXPECT_THAT([&] { std::rethrow_exception(failure); },
                ThrowsMessage<std::runtime_error>("accept failed"));
    connection->accept(channel.listener.get());
    EXPECT_TRUE(connection->connected());
}

TEST(IPCTest, StaleSocketFileIsReplacedAndRemovedByItsListenerOnly) {
    SocketChannel channel;
    const std::string path = channel.path + "2";
    std::ofstream(path) << "stale";
    auto listener = std::make_shared<ConnectionUDS>(channel.poller.get());
    listener->create(path, {0600, "", ""});
    listener->listen();
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

TEST(IPCTest, ReusedConnectionCarriesNothingOver) {
    SocketChannel channel;
    auto client = std::make_shared<ConnectionUDS>(channel.poller.get());
    for (const char* sent : {"ab", "cd"}) {
        SCOPED_TRACE(sent);
        ASSERT_TRUE(client->connect(channel.path));
        EXPECT_TRUE(client->connected());
        const auto accepted = channel.accept();
        accepted->write(sent, 2);
        PollEvent event;
        ASSERT_TRUE(nextEvent(channel, event));
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

TEST(IPCTest, LongPathIsCutAlikeOnBothSides) {
    SocketChannel channel;
    const std::string fits = channel.path + std::string(107 - channel.path.size(), 'x');
    for (const std::string& path : {fits, fits + "yyy"}) {
        SCOPED_TRACE(path.size());
        auto listener = std::make_shared<ConnectionUDS>(channel.poller.get());
        listener->create(path, {0660, "", ""});
        listener->listen();
        EXPECT_TRUE(std::filesystem::exists(fits));
        EXPECT_TRUE(std::make_shared<ConnectionUDS>(nullptr)->connect(path));
        listener->close();
        EXPECT_FALSE(std::filesystem::exists(fits));
    }
}

TEST(IPCTest, EventsTellBytesAndHangUp) {
    SocketChannel channel;
    PollEvent event;
    EXPECT_FALSE(nextEvent(channel, event));
    RawPeer peer(channel.path);
    ASSERT_TRUE(nextEvent(channel, event));
    EXPECT_EQ(channel.listener, event.connection);
    auto connection = channel.accept();
    EXPECT_FALSE(nextEvent(channel, event));
    peer.send("a");
    ASSERT_TRUE(nextEvent(channel, event));
    EXPECT_EQ(connection, event.connection);
    EXPECT_TRUE(event.isReadable() && !event.isHungUp());
    readByte(*connection);
    peer.hangUp();
    ASSERT_TRUE(nextEvent(channel, event));
    EXPECT_TRUE(event.isHungUp());
}

TEST(IPCTest, DescriptorBeyondTheFastMapWorksToo) {
    SocketChannel channel;
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
    PollEvent event;
    ASSERT_TRUE(nextEvent(channel, event));
    EXPECT_EQ(connection, event.connection);
    channel.poller->remove(connection.get());
    channel.poller->remove(connection.get());
    EXPECT_FALSE(nextEvent(channel, event));
}

TEST(IPCTest, BlockedConnectionIsSilentAndDoesNotSpin) {
    SocketChannel channel;
    RawPeer peer(channel.path);
    const auto connection = channel.accept();
    peer.send("ab");
    PollEvent event;
    ASSERT_TRUE(nextEvent(channel, event));
    readByte(*connection);  // the second byte waits in the connection
    {
        connection->blockPoller();
        const IPC::PollBlocker blocker(connection.get());
        peer.send("c");
        peer.hangUp();
        EXPECT_FALSE(isPollerAwake(channel));
        EXPECT_FALSE(nextEvent(channel, event));
    }
    EXPECT_TRUE(isPollerAwake(channel));
    ASSERT_TRUE(nextEvent(channel, event));
    EXPECT_EQ(connection, event.connection);
}

TEST(IPCTest, BufferedBytesCountAsReadyAndStarveNobody) {
    SocketChannel channel;
    const RawPeer busy(channel.path);
    const auto first = channel.accept();
    const RawPeer quiet(channel.path);
    const auto second = channel.accept();
    busy.send(std::string(100, 'a'));
    readByte(*first);
    EXPECT_EQ(0, RawPeer::pendingOn(first->nativeHandle()));
    quiet.send("bb");
    int eventsOfFirst = 0;
    PollEvent event;
    while (nextEvent(channel, event) && event.connection == first) {
        ++eventsOfFirst;
        readByte(*first);
    }
    EXPECT_EQ(second, event.connection);
    EXPECT_GT(eventsOfFirst, 0);
    EXPECT_LE(eventsOfFirst, 8);
    readByte(*second);  // both have bytes in their buffers now: they take turns
    std::vector<ConnectionBase*> order;
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(nextEvent(channel, event));
        order.push_back(event.connection.get());
        readByte(*event.connection);
    }
    EXPECT_NE(order[0], order[1]);
    while (nextEvent(channel, event)) readByte(*event.connection);
    EXPECT_FALSE(first->hasBufferedData());
}

TEST(IPCTest, PostedCallableThatThrowsLeavesTheOthersRunning) {
    SocketChannel channel;
    bool ran = false;
    channel.poller->post([] { throw std::runtime_error("broken"); });
    channel.poller->post([&] { ran = true; });
    PollEvent event;
    EXPECT_FALSE(nextEvent(channel, event));
    EXPECT_TRUE(ran);
}

TEST(IPCTest, StepsOutOfOrderRaise) {
    SocketChannel channel;
    EXPECT_THAT(
        [&] {
            channel.listener->create(channel.path, {0660, "", ""});
        },
        ThrowsMessage<std::runtime_error>("state is not EMPTY when create()"));
    EXPECT_THAT([&] { channel.listener->accept(channel.listener.get()); },
                ThrowsMessage<std::runtime_error>("state is not EMPTY when connect()"));
    auto connection = std::make_shared<ConnectionUDS>(nullptr);
    EXPECT_THAT([&] { connection->accept(nullptr); },
                ThrowsMessage<std::runtime_error>("listener is null"));
    EXPECT_THAT([&] { connection->write("a", 1); },
                ThrowsMessage<std::runtime_error>(HasSubstr("invalid argument: m_fd=-1 buffer=")));
}

}  // namespace
