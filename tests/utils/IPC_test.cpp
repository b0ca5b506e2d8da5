#include "utils/IPC.h"

#include <netinet/in.h>
#include <sys/resource.h>

#include <future>

#include "fakes/SocketChannel.h"
#include "utils/PeerCredentials.h"

namespace kelm {
namespace {

using IPC::ConnectionBase;
using IPC::ConnectionUDS;
using IPC::PollEvent;
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
    std::vector<UniqueFd> low;
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

TEST_F(IPCTest, PeersAreKnownAndTheirBytesAndHangUpToldUnlessBlocked) {
    EXPECT_FALSE(nextEvent());
    RawPeer peer(channel.path);
    ASSERT_TRUE(nextEvent());
    EXPECT_EQ(channel.listener, event.connection);
    const auto connection = channel.accept();
    const auto credentials = connection->getPeer();
    EXPECT_EQ(credentials->pid, ::getpid());
    EXPECT_EQ(credentials->user, ::geteuid());
    EXPECT_THAT(credentials->groups, Contains(::getegid()));
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

TEST_F(IPCTest, WakeEndsAWaitWhateverCameBefore) {
    const RawPeer peer(channel.path);
    const auto connection = channel.accept();
    for (const size_t bytes : {1, 2, 3, 4, 5, 6}) {  // all but one of them out of the buffer
        SCOPED_TRACE(bytes);
        peer.send(std::string(bytes, 'a'));
        for (size_t i = 0; i < bytes; ++i) {
            ASSERT_TRUE(nextEvent());
            (void)readByte(*connection);
        }
        const auto start = std::chrono::steady_clock::now();
        channel.poller->wake();
        event.clear();
        EXPECT_FALSE(channel.poller->wait(&event, 60000));
        EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
    }
}

// More than a socket holds.
const std::string kLarge(4 << 20, 'x');
constexpr int kLargeSize = 4 << 20;

class IPCTransferTest : public testing::Test {
 protected:
    std::string readBytes(size_t size) {
        std::string bytes(size, '\0');
        if (size > 0) connection->read(bytes.data(), static_cast<int>(size), nullptr);
        return bytes;
    }
    UniqueFd readFd() {
        int fd = -1;
        connection->read(fd);
        return UniqueFd(fd);
    }

    static void expectRaises(const std::function<void()>& action, const std::string& words) {
        EXPECT_THAT(action, ThrowsMessage<std::runtime_error>(HasSubstr(words)));
    }

    SocketChannel channel;
    RawPeer peer{channel.path};
    std::shared_ptr<ConnectionUDS> connection = channel.accept();
};

TEST_F(IPCTransferTest, DescriptorsKeepTheirPlaceAmongTheBytes) {
    const UniqueFd first = makeFile();
    const UniqueFd second = makeFile();
    // The last case puts the accompanying bytes across the end of the receive buffer.
    for (const size_t lead : {size_t{0}, size_t{10}, IPC::ReceiveBuffer::kCapacity - 2}) {
        SCOPED_TRACE(lead);
        const std::string leading(lead, 'a');
        peer.send(leading);
        peer.sendFds("1234", {first.get()});
        peer.sendFds("5678", {second.get()});
        peer.send("tail");
        EXPECT_EQ(leading, readBytes(lead));
        const UniqueFd receivedFirst = readFd();
        EXPECT_TRUE(isSameFile(first.get(), receivedFirst.get()));
        EXPECT_TRUE((::fcntl(receivedFirst.get(), F_GETFD) & FD_CLOEXEC) != 0);
        EXPECT_TRUE(isSameFile(second.get(), readFd().get()));
        EXPECT_EQ("tail", readBytes(4));
    }
}

TEST_F(IPCTransferTest, UnwantedDescriptorsAreClosed) {
    const UniqueFd file = makeFile();
    const size_t before = countDescriptors();
    peer.sendFds("1234", {file.get()});
    EXPECT_EQ("1234", readBytes(4));  // read as plain bytes
    peer.sendFds("1234", {file.get(), file.get(), file.get()});
    EXPECT_TRUE(isSameFile(file.get(), readFd().get()));  // the first one counts
    peer.sendFds(std::string(20000, 'a'), {file.get()});
    EXPECT_EQ(20000U, readBytes(20000).size());  // past the buffer
    peer.sendFds("12345", std::vector<int>(253, file.get()));
    expectRaises([&] { (void)readFd(); }, "num_fd = 0");
    EXPECT_EQ("5", readBytes(1));
    EXPECT_EQ(before, countDescriptors());
    peer.sendFds("1234", {file.get()});
    peer.send("5");
    EXPECT_EQ("1", readBytes(1));
    EXPECT_EQ(before + 1, countDescriptors());
    ConnectionBase::close(connection->getSimulateFD());
    connection.reset();
    IPC::PollEvent event;
    EXPECT_FALSE(channel.poller->wait(&event, 0));
    EXPECT_EQ(before - 1, countDescriptors());
}

// Closing it waits until its peer, that the listener has, reads what was sent, or half a minute.
UniqueFd makeLingering(int listener) {
    sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    auto* const name = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof(address);
    EXPECT_EQ(::listen(listener, 2), 0);
    EXPECT_EQ(::getsockname(listener, name, &length), 0);
    UniqueFd sender(::socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(::connect(sender.get(), name, length), 0);
    while (::send(sender.get(), kLarge.data(), kLarge.size(), MSG_DONTWAIT) > 0) {
    }
    const linger stay = {1, 30};
    EXPECT_EQ(::setsockopt(sender.get(), SOL_SOCKET, SO_LINGER, &stay, sizeof(stay)), 0);
    return sender;
}

TEST_F(IPCTransferTest, DescriptorThatLingersHoldsUpNobody) {
    const UniqueFd listener(::socket(AF_INET, SOCK_STREAM, 0));
    for (int i = 0; i < 2; ++i) peer.sendFds("1234", {makeLingering(listener.get()).get()});
    auto done = std::async(std::launch::async, [this] {
        (void)readBytes(4);  // the one is dropped, the other is not read
        connection->close();
    });
    EXPECT_EQ(done.wait_for(10s), std::future_status::ready);
}

TEST_F(IPCTransferTest, WhatIsMissingWhenAPeerLeavesIsTold) {
    connection->setUser("camera");
    peer.send("1234");
    expectRaises([&] { (void)readFd(); }, "recv_fd from socket cmsg_len = 0");
    peer.send("12345");
    peer.hangUp();
    const std::string number = std::to_string(connection->getSimulateFD());
    const std::string failed = " socket(idx=" + number + ") failed, user=camera";
    expectRaises([&] { (void)readBytes(8); }, "read" + failed + " leftBytes=3");
    expectRaises([&] { (void)readFd(); },
                 "The peer has performed an orderly shutdown. socketFd=" + number);
    expectRaises([&] { connection->write("a", 1); }, "write" + failed);
    expectRaises([&] { connection->write(0); }, "Error: Read-end of socket");
    expectRaises([&] { connection->read(nullptr, 4, nullptr); }, "invalid argument. m_fd=");
    connection->close();
    expectRaises([&] { connection->write(0); }, "Error: send fd(");
}

TEST_F(IPCTransferTest, NonBlockingReadTakesWhatIsThere) {
    char bytes[8] = {};
    int count = -1;
    connection->read(bytes, sizeof(bytes), &count);
    EXPECT_EQ(0, count);
    peer.send("abc");
    connection->read(bytes, 2, &count);
    EXPECT_EQ(2, count);
    connection->read(bytes, sizeof(bytes), &count);
    EXPECT_EQ(1, count);
    // The mode that the read left behind makes a full socket answer EAGAIN: no byte may be lost.
    std::thread writer([&] { connection->write(kLarge.data(), kLargeSize); });
    EXPECT_EQ(kLarge, peer.receive(kLarge.size()));
    writer.join();
}

TEST_F(IPCTransferTest, WriteMayBeGivenUpAndKeepsAClosedDescriptorToItsEnd) {
    int questions = 0;
    EXPECT_FALSE(connection->write(kLarge.data(), kLargeSize, [&] { return ++questions < 3; }));
    EXPECT_EQ(3, questions);
    (void)peer.receive(static_cast<size_t>(peer.pending()));
    std::thread reader([&] { EXPECT_EQ(kLarge, peer.receive(kLarge.size())); });
    EXPECT_TRUE(connection->write(kLarge.data(), kLargeSize, [] { return true; }));
    reader.join();
    const int fd = connection->nativeHandle();
    const auto closeInside = [&] {
        connection->close();
        EXPECT_NE(-1, ::fcntl(fd, F_GETFD));  // its number must not name another file yet
        return true;
    };
    expectRaises([&] { connection->write(kLarge.data(), kLargeSize, closeInside); }, "failed");
    EXPECT_EQ(-1, ::fcntl(fd, F_GETFD));
}

TEST_F(IPCTransferTest, StuckTransfersEndFromOutside) {
    const struct {
        const char* name;
        void (*end)(ConnectionUDS& connection);
        bool readsOnly;
    } ways[] = {
        {"shutdown", [](ConnectionUDS& c) { c.shutdown(); }, false},
        {"close", [](ConnectionUDS& c) { ConnectionBase::close(c.getSimulateFD()); }, false},
        {"all", [](ConnectionUDS&) { ConnectionBase::shutdownAll(SHUT_RDWR); }, false},
        {"all reads", [](ConnectionUDS&) { ConnectionBase::shutdownAll(SHUT_RD); }, true},
    };
    for (size_t i = 0; i < 2 * std::size(ways) - 1; ++i) {
        const auto& way = ways[i / 2];
        const bool writes = i % 2 == 1;
        SCOPED_TRACE(std::string(way.name) + (writes ? ", write" : ", read"));
        const RawPeer other(channel.path);
        const auto stuck = channel.accept();
        std::string block = kLarge;
        other.send("half");
        std::thread worker([&] {
            EXPECT_ANY_THROW(writes ? stuck->write(block.data(), kLargeSize)
                                    : stuck->read(block.data(), kLargeSize, nullptr));
        });
        EXPECT_TRUE(eventually([&] {
            return writes ? other.pending() > 0 : RawPeer::pendingOn(stuck->nativeHandle()) == 0;
        }));
        way.end(*stuck);
        worker.join();
        EXPECT_EQ(way.readsOnly, stuck->connected());
        if (!way.readsOnly) continue;
        stuck->write("answer", 6);
        EXPECT_EQ("answer", other.receive(6));
    }
}

}  // namespace
}  // namespace kelm
