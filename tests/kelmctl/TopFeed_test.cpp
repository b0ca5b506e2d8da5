#include "tools/kelmctl/TopFeed.h"

#include <poll.h>

#include "fakes/Eventually.h"
#include "fakes/FakeStatusService.h"
#include "fakes/TempDir.h"

namespace kelm::ctl {
namespace {

using std::chrono::milliseconds;

class TopFeedTest : public ::testing::Test {
 protected:
    // Takes news, as they are announced, until they are as wanted.
    bool waitNews(const std::function<bool(const TopNews&)>& wanted) {
        return eventually([&] {
            pollfd fd{m_feed.fd(), POLLIN, 0};
            return ::poll(&fd, 1, 1000) == 1 && wanted(m_feed.take());
        });
    }

    const TempDir m_dir;
    const ScopedEnv m_env{"KELM_RUN_DIR", m_dir.path()};
    const UniqueFd m_snapshots = listenOn(m_dir.path() + "/kelm_snapshot.sock");
    TopFeed m_feed{milliseconds(5)};
};

TEST_F(TopFeedTest, LossAndReturnOfTheServiceAreNews) {
    const auto isDown = [](const TopNews& news) { return !news.statusWhy.empty(); };
    EXPECT_TRUE(waitNews(isDown));
    for (int round = 1; round < 3; ++round) {
        FakeStatusService service(m_dir.path() + "/kelm_service.sock");
        KelmMsgRspQueryStatus answer{};
        answer.queryType = 31;
        answer.deviceNum = round;
        service.setAnswer(answer);
        EXPECT_TRUE(waitNews([round](const TopNews& news) {
            return news.status && news.statusWhy.empty() &&
                   news.status->devices.size() == static_cast<size_t>(round);
        }));
        service.hangUp();
        EXPECT_TRUE(waitNews(isDown));
    }
}

TEST_F(TopFeedTest, StreamOfSnapshotsIsTakenUpAgainAndHoldsNoEnd) {
    for (int64_t round = 1; round < 3; ++round) {
        const UniqueFd peer(::accept4(m_snapshots.get(), nullptr, nullptr, SOCK_CLOEXEC));
        auto package = std::make_unique<InfoPackage>();
        package->memResMB = round;
        EXPECT_EQ(::send(peer.get(), package.get(), sizeof(InfoPackage), MSG_NOSIGNAL),
                  static_cast<ssize_t>(sizeof(InfoPackage)));
        EXPECT_TRUE(waitNews([round](const TopNews& news) {
            return news.snapshot &&
                   news.snapshot->memory.residentMB == static_cast<uint64_t>(round);
        }));
    }
    // A reader that waits for its next snapshot must not hold the destructor.
    const UniqueFd silent(::accept4(m_snapshots.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

}  // namespace
}  // namespace kelm::ctl
