#include "client/SnapshotReader.h"

#include "client/Decode.h"
#include "client/StreamSocket.h"
#include "utils/RunPaths.h"

namespace kelm::client {

class SnapshotReader::Impl {
 public:
    explicit Impl(StreamSocket socket) : m_socket(std::move(socket)) {}

    // A part that has come before an error stays, and the next read goes on behind it.
    Result<Snapshot> read(Deadline deadline) {
        const auto end = std::chrono::steady_clock::now() + deadline;
        while (m_filled < sizeof(InfoPackage)) {
            char* const target = reinterpret_cast<char*>(m_package.get()) + m_filled;
            const auto count = m_socket.read(target, sizeof(InfoPackage) - m_filled, end);
            if (!count) return count.error();
            m_filled += count.value();
        }
        m_filled = 0;
        return decodeSnapshot(*m_package);
    }

    void interrupt() const { m_socket.interrupt(); }
    int fd() const { return m_socket.fd(); }

 private:
    StreamSocket m_socket;
    std::unique_ptr<InfoPackage> m_package = std::make_unique<InfoPackage>();
    size_t m_filled = 0;  // bytes of the package that have come
};

SnapshotReader::SnapshotReader(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
SnapshotReader::~SnapshotReader() = default;

Result<std::unique_ptr<SnapshotReader>> SnapshotReader::connect(const std::string& socketPath,
                                                                Deadline deadline) {
    const std::string path = socketPath.empty() ? RunPaths::snapshotSocket() : socketPath;
    auto socket = StreamSocket::connect(path, deadline, "snapshot");
    if (!socket) return socket.error();
    return std::unique_ptr<SnapshotReader>(
        new SnapshotReader(std::make_unique<Impl>(std::move(socket.value()))));
}

Result<Snapshot> SnapshotReader::read(Deadline deadline) { return m_impl->read(deadline); }
void SnapshotReader::interrupt() { m_impl->interrupt(); }
int SnapshotReader::fd() const { return m_impl->fd(); }

}  // namespace kelm::client
