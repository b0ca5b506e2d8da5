#include "client/EventReader.h"

#include <array>

#include "utils/RunPaths.h"

namespace kelm::client {

namespace {

constexpr size_t kMostLine = 64 * 1024;

}  // namespace

Result<std::unique_ptr<EventReader>> EventReader::connect(const std::string& socketPath,
                                                          Deadline deadline) {
    const std::string path = socketPath.empty() ? RunPaths::eventsSocket() : socketPath;
    auto socket = StreamSocket::connect(path, deadline, "event");
    if (!socket) return socket.error();
    return std::unique_ptr<EventReader>(new EventReader(std::move(socket.value())));
}

Result<std::string> EventReader::read(Deadline deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    std::array<char, 8192> bytes;
    size_t lineEnd = m_buffer.find('\n');
    while (lineEnd == std::string::npos) {
        if (m_buffer.size() > kMostLine) {
            return Error(ErrorKind::kSystem, 0,
                         "the stream of events is none: a line has no end; check the socket that "
                         "was named, and the version of the service");
        }
        const auto count = m_socket.read(bytes.data(), bytes.size(), end);
        if (!count) return count.error();
        const size_t searched = m_buffer.size();
        m_buffer.append(bytes.data(), count.value());
        lineEnd = m_buffer.find('\n', searched);
    }
    std::string line = m_buffer.substr(0, lineEnd);
    m_buffer.erase(0, lineEnd + 1);
    return line;
}

}  // namespace kelm::client
