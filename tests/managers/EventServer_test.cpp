#include "reporting/EventServer.h"

#include <nlohmann/json.hpp>

#include "fakes/SocketChannel.h"

namespace kelm {
namespace {

using Json = nlohmann::json;

class Reader : public RawPeer {
 public:
    using RawPeer::RawPeer;

    // The next line; null at the end of the stream.
    Json line() const {
        std::string text;
        while (!text.ends_with('\n')) {
            const std::string byte = receive(1);
            if (byte.empty()) return {};
            text += byte;
        }
        return Json::parse(text);
    }
    // The numbers of the events up to the next line of another kind, which is left in `last`.
    std::vector<uint64_t> numbers(Json& last) const {
        std::vector<uint64_t> result;
        for (last = line(); last.contains("seq"); last = line()) result.push_back(last["seq"]);
        return result;
    }
};

class EventServerTest : public ::testing::Test {
 protected:
    void start(EventServer::Limits limits = {}) {
        m_server = std::make_unique<EventServer>(path(), m_journal, limits);
        m_server->start();
    }
    std::string path() const { return m_dir.path() + "/events"; }
    void record(EventAction action, std::string_view name = "name", int times = 1) {
        ServiceEvent event;
        event.action = action;
        event.client = makeEventName(name);
        for (int i = 0; i < times; ++i) m_journal.record(event);
    }

    TempDir m_dir;
    EventJournal m_journal{false};
    std::unique_ptr<EventServer> m_server;
};

TEST_F(EventServerTest, ReaderIsGreetedAndGetsWhatWasAndWhatComes) {
    start();
    record(EventAction::Loaded, "name", 3);
    const Reader reader(path());
    const Json greeting = reader.line();
    EXPECT_EQ(greeting["next"], 4);
    EXPECT_EQ(greeting["moves"]["demand"], 3);
    reader.send("last 2\n");
    Json last;
    EXPECT_THAT(reader.numbers(last), ElementsAre(2, 3));
    EXPECT_EQ(last["kind"], "live");
    const std::string hostile = "\"\\\n\x1b[2J\xff" + std::string(300, '\x01');
    record(EventAction::Registered, hostile);
    const Json event = reader.line();
    EXPECT_EQ(event["seq"], 4);
    EXPECT_THAT(event["client"].get<std::string>(),
                ::testing::StartsWith("\"\\\\x0a\\x1b[2J\\xff"));
}

TEST_F(EventServerTest, EventsThatClientsMakeLeaveTheOthersTheirPlaces) {
    record(EventAction::Loaded);
    record(EventAction::Reset, "name", 2000);
    record(EventAction::Registered, "name", 2000);
    record(EventAction::Moved, "name", 899);
    start();
    const Reader reader(path());
    (void)reader.line();
    reader.send("last 1000\r\n");
    Json last;
    const std::vector<uint64_t> numbers = reader.numbers(last);
    EXPECT_EQ(numbers.size(), 1000U);
    EXPECT_EQ(numbers.back(), 4900U);
    EXPECT_EQ(std::ranges::count_if(numbers, [](uint64_t n) { return n > 1 && n <= 4001; }), 101);
}

TEST_F(EventServerTest, SlowReaderIsToldWhatItHasLostAndDropped) {
    start({.backlog = 2000, .patience = 1h, .sendBuffer = 1});
    const Reader slow(path());
    const Reader honest(path());
    EXPECT_EQ(slow.line()["next"], 1);
    EXPECT_EQ(honest.line()["next"], 1);
    Json gap;
    for (uint64_t number = 1; number <= 500; ++number) {
        record(EventAction::Loaded);
        EXPECT_EQ(honest.line()["seq"], number);
    }
    const std::vector<uint64_t> numbers = slow.numbers(gap);
    EXPECT_EQ(gap["kind"], "gap");
    EXPECT_EQ(gap["from"], numbers.size() + 1);
    EXPECT_EQ(gap["to"], 500);
    EXPECT_TRUE(slow.line().is_null());
}

TEST_F(EventServerTest, ReaderThatNeverReadsIsDroppedWithoutAWord) {
    start({.backlog = 2000, .patience = 1ms, .sendBuffer = 1});
    const Reader mute(path());
    EXPECT_TRUE(eventually([&] { return mute.pending() > 0; }));
    EXPECT_TRUE(eventually([&] {
        record(EventAction::Loaded, "name", 100);
        return mute.isDisconnected();
    }));
}

TEST_F(EventServerTest, WhatIsNoRequestEndsTheConnection) {
    start();
    for (const std::string request : {"last\n", "last 0\n", "last -1\n",
                                      "last 99999999999999999999\n", "last 1\nlast 1\n", "\n"}) {
        SCOPED_TRACE(request);
        const Reader reader(path());
        reader.send(request);
        EXPECT_TRUE(eventually([&] { return reader.isDisconnected(); }));
    }
    Reader endless(path());
    (void)endless.sendBytes(std::string(1000, 'x'));
    EXPECT_TRUE(eventually([&] { return endless.isDisconnected(); }));
}

TEST_F(EventServerTest, ReaderThatEndsItsSideIsAnsweredAndOneBeyondTheLimitIsNot) {
    start({.readers = 1});
    const Reader reader(path());
    reader.send("last 1\n");
    ::shutdown(reader.fd(), SHUT_WR);
    EXPECT_EQ(reader.line()["kind"], "greeting");
    EXPECT_EQ(reader.line()["kind"], "live");
    const Reader second(path());
    EXPECT_TRUE(eventually([&] { return second.isDisconnected(); }));
    record(EventAction::Lost);
    EXPECT_EQ(reader.line()["action"], "lost");
    EXPECT_TRUE(m_server->stop(10s));
    EXPECT_TRUE(reader.line().is_null());
}

}  // namespace
}  // namespace kelm
