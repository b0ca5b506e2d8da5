#include "tools/kelmctl/EventFollower.h"

#include <future>

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
    const auto send = [](const UniqueFd& peer, const std::string& text) {
        EXPECT_EQ(::send(peer.get(), text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    };
    const auto expect = [](const std::optional<EventHistory>& history, uint64_t moves,
                           std::vector<uint64_t> sequences) {
        ASSERT_TRUE(history);
        EXPECT_EQ(history->moves.at("demand"), moves);
        EXPECT_EQ(history->next, sequences.back() + 1);
        std::vector<uint64_t> seen;
        for (const EventRow& event : history->events) seen.push_back(event.sequence);
        EXPECT_EQ(seen, sequences);
    };
    // Its first looks at a connection wait for what the service tells there.
    const auto lookAnew = [&](const std::string& told) {
        auto look = std::async(std::launch::async, [&] { return follower.look(20s); });
        UniqueFd peer(::accept4(service.get(), nullptr, nullptr, SOCK_CLOEXEC));
        send(peer, told);
        expect(look.get(), 5, {1, 2, 3});
        return peer;
    };
    const std::string story = R"({"kind":"greeting","schema":1,"next":3,"moves":{"demand":4}})"
                              "\n" +
                              loaded(3) + loaded(1) + loaded(2) + "{\"kind\":\"live\"}\n";
    UniqueFd peer = lookAnew(story);
    expect(follower.look(0s), 5, {1, 2, 3});
    send(peer, loaded(4) + loaded(5));
    expect(follower.look(0s), 7, {3, 4, 5});
    send(peer, R"({"kind":"gap","from":6,"to":9})"
               "\n");
    peer = lookAnew(story);
    peer.reset();
    peer = lookAnew(story);
    send(peer, "none\n");
    EXPECT_FALSE(follower.look(0s));
}

}  // namespace
}  // namespace kelm::ctl
