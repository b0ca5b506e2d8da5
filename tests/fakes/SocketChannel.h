#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

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

// The far end of a connection as a plain socket, which may send whatever it likes.
class RawPeer {
 public:
    explicit RawPeer(const std::string& path) : m_fd(::socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un name = {};
        name.sun_family = AF_UNIX;
        std::strncpy(name.sun_path, path.c_str(), sizeof(name.sun_path) - 1);
        EXPECT_EQ(0, ::connect(m_fd.get(), reinterpret_cast<sockaddr*>(&name), sizeof(name)));
    }

    int fd() const { return m_fd.get(); }
    void hangUp() { m_fd.reset(); }
    // Sends all the bytes in one segment, if they fit into the socket.
    void send(const void* bytes, size_t size) const {
        ASSERT_EQ(static_cast<ssize_t>(size), ::send(fd(), bytes, size, MSG_NOSIGNAL));
    }
    void send(const std::string& bytes) const { send(bytes.data(), bytes.size()); }
    // One segment with descriptors.
    void sendFds(const std::string& bytes, const std::vector<int>& fds) const {
        std::vector<char> control(CMSG_SPACE(fds.size() * sizeof(int)));
        iovec part = {const_cast<char*>(bytes.data()), bytes.size()};
        msghdr message = {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* const cmsg = CMSG_FIRSTHDR(&message);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
        std::memcpy(CMSG_DATA(cmsg), fds.data(), fds.size() * sizeof(int));
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), ::sendmsg(fd(), &message, MSG_NOSIGNAL));
    }
    // Bytes that wait to be received.
    int pending() const { return pendingOn(fd()); }
    static int pendingOn(int socket) {
        int count = 0;
        return ::ioctl(socket, FIONREAD, &count) == 0 ? count : -1;
    }
    std::string receive(size_t size) const {
        std::string bytes(size, '\0');
        size_t got = 0;
        while (got < size) {
            const ssize_t count = ::recv(fd(), bytes.data() + got, size - got, 0);
            if (count <= 0) break;
            got += static_cast<size_t>(count);
        }
        bytes.resize(got);
        return bytes;
    }

 private:
    UniqueFd m_fd;
};

// A poller with a listener on a socket file of its own.
class SocketChannel {
 public:
    SocketChannel() {
        char directory[] = "/tmp/kelm_channel_XXXXXX";
        m_directory = ::mkdtemp(directory);
        path = m_directory + "/socket";
        poller = std::make_shared<IPC::Poller>();
        listener = std::make_shared<IPC::ConnectionUDS>(poller.get());
        listener->create(path, {0660, "", ""});
        listener->listen();
    }
    ~SocketChannel() {
        listener->close();
        std::filesystem::remove_all(m_directory);
    }

    // Takes the next peer, as the service does.
    std::shared_ptr<IPC::ConnectionUDS> accept() const {
        auto connection = std::make_shared<IPC::ConnectionUDS>(poller.get());
        connection->accept(listener.get());
        IPC::ConnectionBase::adopt(connection);
        return connection;
    }

    std::string path;
    std::shared_ptr<IPC::Poller> poller;
    std::shared_ptr<IPC::ConnectionUDS> listener;

 private:
    std::string m_directory;
};

}  // namespace kelm
