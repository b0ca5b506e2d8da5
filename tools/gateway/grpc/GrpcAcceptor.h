#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <thread>
#include <vector>

#include "tools/gateway/ListenSocket.h"
#include "utils/NonCopyable.h"
#include "utils/UniqueFd.h"

namespace kelm::gateway {

// Accepts connections for gRPC, whose own listening knows no limit of them; what is beyond is
// closed at once.
//
// Threads: one of its own accepts. Owns: the thread and the sockets that listen; an accepted one
// is who takes it's.
class GrpcAcceptor : public NonCopyable {
 public:
    using Take = std::function<void(int fd)>;
    // Keeps the count of connections, a second late at most.
    GrpcAcceptor(std::vector<ListenSocket> sockets, size_t connections, std::atomic<int64_t>& count,
                 Take take);
    // Accepts nothing more.
    ~GrpcAcceptor();

    const std::vector<ListenSocket>& sockets() const { return m_sockets; }

 private:
    void run();
    void acceptSome(const ListenSocket& socket);
    void forgetClosed();

    const std::vector<ListenSocket> m_sockets;
    const size_t m_connections;
    std::atomic<int64_t>& m_count;  // atomic: a count, which guards nothing
    const Take m_take;
    const UniqueFd m_end;
    // What was accepted, by descriptor and inode: gRPC does not tell when it closes one, but then
    // the number is free or another file's.
    std::map<int, ino_t> m_accepted;
    std::thread m_thread;
};

}  // namespace kelm::gateway
