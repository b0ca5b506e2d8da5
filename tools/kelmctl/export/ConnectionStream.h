#pragma once

#include <httplib.h>

#include <chrono>
#include <string>

#include "utils/UniqueFd.h"

namespace kelm::ctl {

// One connection, with the limits of ExportServer: on the size of the request, on the time until
// all of it has come, and on the time that each answer, or each event of a stream, takes to leave.
//
// Threads: one. Owns: the connection.
class ConnectionStream final : public httplib::Stream {
 public:
    // Becomes readable at the end of the server, which ends all waits; borrowed.
    ConnectionStream(UniqueFd socket, int endFd);

    bool is_readable() const override;
    bool is_writable() const override;
    ssize_t read(char* data, size_t size) override;
    // All of it, or -1.
    ssize_t write(const char* data, size_t size) override;
    // Not asked for: nothing is told by the peer's address.
    void get_remote_ip_and_port(std::string&, int&) const override {}
    void get_local_ip_and_port(std::string&, int&) const override {}
    socket_t socket() const override { return m_socket.get(); }

 private:
    using Clock = std::chrono::steady_clock;

    // Whether the connection is ready by then; not at the end of the server.
    bool wait(short events, Clock::time_point end) const;
    // Whether more of the request has come.
    bool fill();
    void hideRanges();

    const UniqueFd m_socket;
    const int m_endFd;
    const Clock::time_point m_requestEnd;
    size_t m_received = 0;
    std::string m_buffer;   // what has been received last
    size_t m_consumed = 0;  // of it
    std::string m_line;     // the first characters of the line that comes
};

}  // namespace kelm::ctl
