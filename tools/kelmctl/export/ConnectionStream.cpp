#include "tools/kelmctl/export/ConnectionStream.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "utils/TextHelper.h"

namespace kelm::ctl {

namespace {

constexpr std::chrono::seconds kRequestTime{5};
constexpr std::chrono::seconds kWriteTime{5};
constexpr size_t kMaxRequest = 16384;
constexpr size_t kChunk = 4096;

}  // namespace

ConnectionStream::ConnectionStream(UniqueFd socket, int endFd)
    : m_socket(std::move(socket)), m_endFd(endFd), m_requestEnd(Clock::now() + kRequestTime) {}

bool ConnectionStream::wait(short events, Clock::time_point end) const {
    while (true) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd fds[] = {{m_socket.get(), events, 0}, {m_endFd, POLLIN, 0}};
        const int count = ::poll(fds, std::size(fds), static_cast<int>(std::max<int64_t>(left, 0)));
        if (count < 0 && errno == EINTR) continue;
        return count > 0 && fds[1].revents == 0;
    }
}

bool ConnectionStream::is_readable() const {
    return m_consumed < m_buffer.size() || wait(POLLIN, m_requestEnd);
}

bool ConnectionStream::is_writable() const { return wait(POLLOUT, Clock::now() + kWriteTime); }

bool ConnectionStream::fill() {
    m_consumed = 0;
    m_buffer.resize(std::min(kChunk, kMaxRequest - m_received));
    ssize_t count = -1;
    if (!m_buffer.empty() && wait(POLLIN, m_requestEnd)) {
        count = ::recv(m_socket.get(), m_buffer.data(), m_buffer.size(), MSG_DONTWAIT);
    }
    m_buffer.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
    m_received += m_buffer.size();
    hideRanges();
    return !m_buffer.empty();
}

// The library takes a list of ranges apart by recursion: a header of 8 KB needs some megabytes of
// stack, more than a thread may have. A line without its colon is passed over.
void ConnectionStream::hideRanges() {
    static constexpr std::string_view kName = "range";
    for (char& character : m_buffer) {
        if (character == ':' && toLower(m_line) == kName) character = ' ';
        if (character == '\n') {
            m_line.clear();
        } else if (m_line.size() <= kName.size()) {
            m_line += character;
        }
    }
}

ssize_t ConnectionStream::read(char* data, size_t size) {
    if (m_consumed == m_buffer.size() && !fill()) return -1;
    const size_t count = m_buffer.copy(data, size, m_consumed);
    m_consumed += count;
    return static_cast<ssize_t>(count);
}

ssize_t ConnectionStream::write(const char* data, size_t size) {
    const auto end = Clock::now() + kWriteTime;
    for (size_t sent = 0; sent < size;) {
        if (!wait(POLLOUT, end)) return -1;
        const ssize_t count =
            ::send(m_socket.get(), data + sent, size - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0 && errno != EAGAIN && errno != EINTR) return -1;
        sent += static_cast<size_t>(std::max<ssize_t>(count, 0));
    }
    return static_cast<ssize_t>(size);
}

}  // namespace kelm::ctl
