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

class IPCTransferTest : public testing::Test {
 protected:
    std::string readBytes(int size) {
        std::string bytes(static_cast<size_t>(size), '\0');
        connection->read(bytes.data(), size, nullptr);
        return bytes;
    }
    UniqueFd readFd() {
        int fd = -1;
        connection->read(fd);
        return UniqueFd(fd);
    }

    template <class Action>
    static void expectRaises(Action action, const char* words) {
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
    for (const int lead : {0, 10, static_cast<int>(IPC::ReceiveBuffer::kCapacity) - 2}) {
        SCOPED_TRACE(lead);
        const std::string leading(static_cast<size_t>(lead), 'a');
        if (lead > 0) peer.send(leading);
        peer.sendFds("1234", {first.get()});
        peer.sendFds("5678", {second.get()});
        peer.send("tail");
        EXPECT_TRUE(lead == 0 || readBytes(lead) == leading);
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
    expectRaises([&] { (void)readFd(); }, "Error: could not get recv_fd from socket cmsg_len = 0");
    peer.send("12345");
    peer.hangUp();
    expectRaises([&] { (void)readBytes(8); }, "read socket(idx=1) failed, user=camera leftBytes=3");
    expectRaises([&] { (void)readFd(); }, "The peer has performed an orderly shutdown. socketFd=1");
    expectRaises([&] { connection->write("a", 1); }, "write socket(idx=1) failed, user=camera");
    expectRaises([&] { connection->read(nullptr, 4, nullptr); },
                 "read got invalid argument. m_fd=");
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
    const std::string large(4 << 20, 'x');
    std::thread writer([&] { connection->write(large.data(), static_cast<int>(large.size())); });
    EXPECT_EQ(large, peer.receive(large.size()));
    writer.join();
    std::thread sender([&] {
        EXPECT_TRUE(
            eventually([&] { return RawPeer::pendingOn(connection->nativeHandle()) == 0; }));
        peer.send("z");
    });
    EXPECT_EQ("z", readBytes(1));
    sender.join();
}

TEST_F(IPCTransferTest, ImpatientWriteEndsWhenItIsTold) {
    const std::string large(4 << 20, 'x');
    const int size = static_cast<int>(large.size());
    int questions = 0;
    EXPECT_FALSE(connection->write(large.data(), size, [&] { return ++questions < 3; }));
    EXPECT_EQ(3, questions);
    (void)peer.receive(static_cast<size_t>(peer.pending()));
    std::thread reader([&] { EXPECT_EQ(large, peer.receive(large.size())); });
    EXPECT_TRUE(connection->write(large.data(), size, [] { return true; }));
    reader.join();
}

// Each way to end a transfer that stands still, from another thread.
TEST_F(IPCTransferTest, StuckTransfersEndFromOutside) {
    struct Row {
        const char* name;
        bool writes;
        void (*end)(ConnectionUDS& connection);
        bool stillWrites;
    };
    const Row rows[] = {
        {"shutdown ends a read", false, [](ConnectionUDS& c) { c.shutdown(); }, false},
        {"close ends a read", false,
         [](ConnectionUDS& c) { ConnectionBase::close(c.getSimulateFD()); }, false},
        {"all shut down for reading", false,
         [](ConnectionUDS&) { ConnectionBase::shutdownAll(SHUT_RD); }, true},
        {"shutdown ends a write", true, [](ConnectionUDS& c) { c.shutdown(); }, false},
        {"close ends a write", true,
         [](ConnectionUDS& c) { ConnectionBase::close(c.getSimulateFD()); }, false},
        {"all shut down", true, [](ConnectionUDS&) { ConnectionBase::shutdownAll(SHUT_RDWR); },
         false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const RawPeer other(channel.path);
        const auto stuck = channel.accept();
        std::string block(4 << 20, 'x');
        other.send("half");
        std::thread worker([&] {
            const int size = static_cast<int>(block.size());
            EXPECT_ANY_THROW(row.writes ? stuck->write(block.data(), size)
                                        : stuck->read(block.data(), size, nullptr));
        });
        EXPECT_TRUE(eventually([&] {
            return row.writes ? other.pending() > 0
                              : RawPeer::pendingOn(stuck->nativeHandle()) == 0;
        }));
        row.end(*stuck);
        worker.join();
        if (row.stillWrites) {
            EXPECT_TRUE(stuck->connected());
            stuck->write("answer", 6);
            EXPECT_EQ("answer", other.receive(6));
        } else {
            EXPECT_FALSE(stuck->connected());
        }
    }
}

// A descriptor that is closed while a transfer is inside must not reach another file that gets its
// number: each round opens new files as fast as it closes old ones.
TEST_F(IPCTransferTest, CloseRacesWithTransfersAndReuse) {
    const size_t before = countDescriptors();
    for (int round = 0; round < 200; ++round) {
        RawPeer other(channel.path);
        const auto busy = channel.accept();
        std::atomic<int> inside{0};
        const auto repeat = [&inside](auto transfer) {
            return std::thread([&inside, transfer] {
                inside.fetch_add(1);
                try {
                    for (;;) transfer();
                } catch (const std::exception&) {
                }
            });
        };
        char bytes[64];
        std::thread reader = repeat([&] { busy->read(bytes, sizeof(bytes), nullptr); });
        std::thread writer = repeat([&] { busy->write("0123456789", 10); });
        other.send(std::string(100, 'x'));
        EXPECT_TRUE(eventually([&] { return inside.load() == 2; }));
        ConnectionBase::close(busy->getSimulateFD());
        const UniqueFd file = makeFile();
        reader.join();
        writer.join();
        struct stat status = {};
        EXPECT_EQ(0, ::fstat(file.get(), &status));
        EXPECT_EQ(0, status.st_size);
    }
    IPC::PollEvent event;
    EXPECT_FALSE(channel.poller->wait(&event, 0));
    EXPECT_EQ(before, countDescriptors());
}

}  // namespace
