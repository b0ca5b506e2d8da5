#pragma once

#include "tests/wire/WireClient.h"
#include "utils/IPC.h"
#include "utils/UniqueFd.h"

namespace kelm {

// Open descriptors of the process, to see whether some leak.
inline size_t countDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

// A file that only its descriptor names.
inline UniqueFd makeFile() { return UniqueFd(::memfd_create("test", MFD_CLOEXEC)); }

inline bool isSameFile(int a, int b) {
    struct stat first = {};
    struct stat second = {};
    return ::fstat(a, &first) == 0 && ::fstat(b, &second) == 0 && first.st_ino == second.st_ino &&
           first.st_dev == second.st_dev;
}

// The far end of a connection as a plain socket, which may send anything.
class RawPeer : public WireClient {
 public:
    explicit RawPeer(const std::string& path) : WireClient(path) { EXPECT_TRUE(connected()); }

    // Sends all the bytes in one segment, if they fit into the socket.
    void send(const void* bytes, size_t size) const {
        ASSERT_EQ(static_cast<ssize_t>(size), ::send(fd(), bytes, size, MSG_NOSIGNAL));
    }
    void send(const std::string& bytes) const { send(bytes.data(), bytes.size()); }
    // Bytes that wait to be received.
    int pending() const { return pendingOn(fd()); }
    static int pendingOn(int socket) { return static_cast<int>(waitingBytes(socket)); }
    // As many bytes, or fewer at the end of the connection.
    std::string receive(size_t size) const {
        std::string bytes(size, '\0');
        const ssize_t count = ::recv(fd(), bytes.data(), size, MSG_WAITALL);
        bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return bytes;
    }
};

// A poller with a listener on a socket file of its own.
class SocketChannel {
 public:
    SocketChannel() {
        listener->create(path, {0660, "", ""});
        listener->listen();
    }
    ~SocketChannel() { listener->close(); }

    // Takes the next peer, as the service does.
    std::shared_ptr<IPC::ConnectionUDS> accept() const {
        auto connection = std::make_shared<IPC::ConnectionUDS>(poller.get());
        connection->accept(listener.get());
        IPC::ConnectionBase::adopt(connection);
        return connection;
    }

 private:
    const TempDir m_directory;

 public:
    const std::string path = m_directory.path() + "/socket";
    std::shared_ptr<IPC::Poller> poller = std::make_shared<IPC::Poller>();
    std::shared_ptr<IPC::ConnectionUDS> listener =
        std::make_shared<IPC::ConnectionUDS>(poller.get());
};

}  // namespace kelm
