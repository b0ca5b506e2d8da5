#include "tools/kelmctl/EventFollower.h"

#include "fakes/ListenOn.h"

namespace kelm::ctl {
namespace {

std::string loaded(int sequence) {
    return R"({"kind":"placement","action":"loaded","reason":"demand","seq":)" +
           std::to_string(sequence) + "}\n";
}

TEST(EventFollowerTest, OneConnectionIsFollowedUntilEventsAreLost) {
    const TempDir dir;
    const ScopedEnv env{"KELM_RUN_DIR", dir.path()};
    const UniqueFd service = listenOn(dir.path() + "/kelm_events.sock");
    EventFollower follower{3};
    // What a look has after the service has told this, on the last connection or a new one.
    const auto look = [&](UniqueFd& peer, const std::string& told) {
        auto result = std::async(std::launch::async, [&, wait = peer ? 0ms : 20000ms] {
            if (wait == 0ms) ::send(peer.get(), told.data(), told.size(), MSG_NOSIGNAL);
            return follower.look(wait);
        });
        if (!peer) {
            peer.reset(::accept4(service.get(), nullptr, nullptr, SOCK_CLOEXEC));
            ::send(peer.get(), told.data(), told.size(), MSG_NOSIGNAL);
        }
        const auto history = result.get();
        std::vector<uint64_t> seen;
        if (!history) return seen;
        seen = {history->next, history->moves.at("demand")};
        for (const EventRow& event : history->events) seen.push_back(event.sequence);
        return seen;
    };
    const std::string story = R"({"kind":"greeting","schema":1,"next":3,"moves":{"demand":4}})"
                              "\n" +
                              loaded(3) + loaded(1) + loaded(2) + "{\"kind\":\"live\"}\n";
    UniqueFd first, second;
    EXPECT_THAT(look(first, story), ElementsAre(4, 5, 1, 2, 3));
    EXPECT_THAT(look(first, ""), ElementsAre(4, 5, 1, 2, 3));
    EXPECT_THAT(look(first, loaded(4) + loaded(5)), ElementsAre(6, 7, 3, 4, 5));
    ::send(first.get(), "{\"kind\":\"gap\"}\n", 15, MSG_NOSIGNAL);
    EXPECT_THAT(look(second, story), ElementsAre(4, 5, 1, 2, 3));
    EXPECT_THAT(look(second, "none\n"), IsEmpty());
}

}  // namespace
}  // namespace kelm::ctl
