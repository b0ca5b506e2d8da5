#include "client/SnapshotReader.h"

#include "client/Client.h"
#include "fakes/ListenOn.h"
#include "protocol/src/InfoPackage.h"

namespace kelm::client {
namespace {

using std::chrono::milliseconds;

class SnapshotReaderTest : public ::testing::Test {
 protected:
    // Bytes `from` to `to` of a package whose memory has this many megabytes.
    void send(int64_t megabytes, size_t from = 0, size_t to = sizeof(InfoPackage)) {
        auto package = std::make_unique<InfoPackage>();
        package->memResMB = megabytes;
        const char* bytes = reinterpret_cast<const char*>(package.get());
        EXPECT_EQ(::send(m_peer.get(), bytes + from, to - from, MSG_NOSIGNAL),
                  static_cast<ssize_t>(to - from));
    }

    const TempDir m_dir;
    const std::string m_path = m_dir.path() + "/socket";
    const UniqueFd m_listener = listenOn(m_path);
    const std::unique_ptr<SnapshotReader> m_reader = SnapshotReader::connect(m_path).value();
    UniqueFd m_peer{::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC)};
};

TEST_F(SnapshotReaderTest, DeadlineInAPackageKeepsItsPlaceInTheStream) {
    send(1, 0, 1000);
    EXPECT_EQ(m_reader->read(0ms).error().kind(), ErrorKind::kTimeout);
    std::thread writer([this] {
        send(1, 1000);
        send(2);
    });
    EXPECT_EQ(m_reader->read().value().memory.residentMB, 1U);
    EXPECT_EQ(m_reader->read().value().memory.residentMB, 2U);
    writer.join();
    m_peer.reset();
    EXPECT_EQ(m_reader->read().error().kind(), ErrorKind::kConnectionLost);
}

TEST_F(SnapshotReaderTest, InterruptEndsEveryRead) {
    std::thread interrupter([this] { m_reader->interrupt(); });
    EXPECT_EQ(m_reader->read(1h).error().kind(), ErrorKind::kCanceled);
    interrupter.join();
    EXPECT_EQ(m_reader->read(1h).error().kind(), ErrorKind::kCanceled);
}

TEST(ConnectTest, EndsAtItsDeadline) {
    const TempDir dir;
    const std::string path = dir.path() + "/socket";
    const UniqueFd full = listenOn(path, 0);
    const auto waiting = SnapshotReader::connect(path);
    const milliseconds limit(20);
    EXPECT_EQ(Client::connect(path, limit).error().kind(), ErrorKind::kTimeout);
    EXPECT_EQ(SnapshotReader::connect(path, limit).error().kind(), ErrorKind::kTimeout);
}

}  // namespace
}  // namespace kelm::client
