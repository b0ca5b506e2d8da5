#include "client/SnapshotReader.h"

#include <poll.h>

#include "fakes/FakeStatusService.h"
#include "fakes/TempDir.h"

namespace kelm::client {
namespace {

using std::chrono::milliseconds;

class SnapshotReaderTest : public ::testing::Test {
 protected:
    void connect() {
        auto connected = SnapshotReader::connect(m_path);
        ASSERT_TRUE(connected);
        m_reader = std::move(connected.value());
        m_peer.reset(::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    // Bytes `from` to `to` of a package whose memory has this many megabytes.
    void send(int64_t megabytes, size_t from = 0, size_t to = sizeof(InfoPackage)) {
        auto package = std::make_unique<InfoPackage>();
        package->memResMB = megabytes;
        const char* bytes = reinterpret_cast<const char*>(package.get());
        while (from < to) {
            const ssize_t count = ::send(m_peer.get(), bytes + from, to - from, MSG_NOSIGNAL);
            ASSERT_GT(count, 0);
            from += static_cast<size_t>(count);
        }
    }
    bool isReadable() const {
        pollfd fd{m_reader->fd(), POLLIN, 0};
        return ::poll(&fd, 1, 0) == 1;
    }

    const TempDir m_dir;
    const std::string m_path = m_dir.path() + "/socket";
    const UniqueFd m_listener = listenOn(m_path);
    UniqueFd m_peer;
    std::unique_ptr<SnapshotReader> m_reader;
};

TEST_F(SnapshotReaderTest, DeadlineInAPackageKeepsItsPlaceInTheStream) {
    connect();
    EXPECT_FALSE(isReadable());
    send(1, 0, 1000);
    EXPECT_TRUE(isReadable());
    EXPECT_EQ(m_reader->read(milliseconds(0)).error().kind(), ErrorKind::kTimeout);
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
    connect();
    std::thread interrupter([this] { m_reader->interrupt(); });
    EXPECT_EQ(m_reader->read(std::chrono::hours(1)).error().kind(), ErrorKind::kCanceled);
    interrupter.join();
    EXPECT_EQ(m_reader->read(std::chrono::hours(1)).error().kind(), ErrorKind::kCanceled);
}

TEST_F(SnapshotReaderTest, ConnectNamesWhatItCannotReachAndEndsAtItsDeadline) {
    const auto nobody = SnapshotReader::connect("/nonexistent/socket");
    EXPECT_EQ(nobody.error().kind(), ErrorKind::kNotConnected);
    EXPECT_THAT(nobody.error().text(), ::testing::HasSubstr("/nonexistent/socket"));
    const UniqueFd still = listenOn(m_path, 0);
    const auto waiting = SnapshotReader::connect(m_path);
    ASSERT_TRUE(waiting);
    EXPECT_EQ(SnapshotReader::connect(m_path, milliseconds(20)).error().kind(),
              ErrorKind::kTimeout);
}

}  // namespace
}  // namespace kelm::client
