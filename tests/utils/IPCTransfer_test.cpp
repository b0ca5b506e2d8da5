#include "fakes/Eventually.h"
#include "fakes/SocketChannel.h"
#include "utils/IPC.h"

namespace {

using IPC::ConnectionBase;
using IPC::ConnectionUDS;
using kelm::countDescriptors;
using kelm::eventually;
using kelm::isSameFile;
using kelm::makeFile;
using kelm::RawPeer;
using kelm::SocketChannel;
using kelm::UniqueFd;
using testing::HasSubstr;
using testing::ThrowsMessage;

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

    static void expectRaises(const std::function<void()>& action, const char* words) {
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

TEST_F(IPCTransferTest, SentDescriptorArrivesWithItsNumber) {
    auto client = std::make_shared<ConnectionUDS>(nullptr);
    ASSERT_TRUE(client->connect(channel.path));
    const auto accepted = channel.accept();
    const UniqueFd file = makeFile();
    client->write(file.get());
    int fd = -1;
    accepted->read(fd);
    const UniqueFd received(fd);
    EXPECT_TRUE(isSameFile(file.get(), received.get()));
    ConnectionBase::close(accepted->getSimulateFD());
    expectRaises([&] { client->write(file.get()); }, "Error: Read-end of socket");
    expectRaises([&] { accepted->write(file.get()); }, "Error: send fd(");
}

TEST_F(IPCTransferTest, WhatIsMissingWhenAPeerLeavesIsTold) {
    connection->setUser("camera");
    peer.send("1234");
    expectRaises([&] { (void)readFd(); }, "recv_fd from socket cmsg_len = 0");
    peer.send("12345");
    peer.hangUp();
    expectRaises([&] { (void)readBytes(8); }, "read socket(idx=1) failed, user=camera leftBytes=3");
    expectRaises([&] { (void)readFd(); }, "The peer has performed an orderly shutdown. socketFd=1");
    expectRaises([&] { connection->write("a", 1); }, "write socket(idx=1) failed, user=camera");
    expectRaises([&] { connection->read(nullptr, 4, nullptr); }, "invalid argument. m_fd=");
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
