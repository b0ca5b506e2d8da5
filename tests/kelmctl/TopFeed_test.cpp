#include "tools/kelmctl/TopFeed.h"

#include "fakes/ListenOn.h"
#include "protocol/src/InfoPackage.h"

namespace kelm::ctl {
namespace {

TEST(TopFeedTest, StreamOfSnapshotsIsTakenUpAgainAndHoldsNoEnd) {
    const TempDir dir;
    const ScopedEnv env{"KELM_RUN_DIR", dir.path()};
    const UniqueFd snapshots = listenOn(dir.path() + "/kelm_snapshot.sock");
    TopFeed feed{5ms};
    for (int64_t round = 1; round < 3; ++round) {
        const UniqueFd peer(::accept4(snapshots.get(), nullptr, nullptr, SOCK_CLOEXEC));
        auto package = std::make_unique<InfoPackage>();
        package->memResMB = round;
        EXPECT_EQ(::send(peer.get(), package.get(), sizeof(InfoPackage), MSG_NOSIGNAL),
                  static_cast<ssize_t>(sizeof(InfoPackage)));
        EXPECT_TRUE(eventually([&] {
            pollfd announced{feed.fd(), POLLIN, 0};
            if (::poll(&announced, 1, 1000) != 1) return false;
            const TopNews news = feed.take();
            return news.snapshot && news.snapshotWhy.empty() &&
                   news.snapshot->memory.residentMB == static_cast<uint64_t>(round);
        }));
    }
    // A reader that waits for its next snapshot must not hold the destructor.
    const UniqueFd silent(::accept4(snapshots.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

}  // namespace
}  // namespace kelm::ctl
