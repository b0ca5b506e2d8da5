#include "tools/kelmctl/export/ExportServer.h"

#include <netinet/in.h>
#include <sys/time.h>

#include <cerrno>

#include "tools/kelmctl/UsageError.h"
#include "utils/UniqueFd.h"

namespace kelm::ctl {
namespace {

const std::string kGet = "GET /small HTTP/1.1\r\nHost: localhost\r\n\r\n";

class ExportServerTest : public ::testing::Test {
 protected:
    ExportServerTest() {
        ExportRoutes routes;
        routes.answers = {{"/small", [] { return HttpAnswer{.body = "small"}; }},
                          {"/large", [] { return HttpAnswer{.body = std::string(16 << 20, 'x')}; }},
                          {"/throws", []() -> HttpAnswer { throw std::runtime_error("why"); }}};
        routes.event = [](const ExportSnapshot& snapshot) {
            return "data: " + std::to_string(snapshot.number) + "\n\n";
        };
        m_server.emplace(ListenAddress("127.0.0.1:0"), m_feed, std::move(routes));
    }

    UniqueFd connect(const std::string& request) const {
        UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(m_server->port());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)),
                  0);
        const timeval limit{20, 0};
        ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        (void)::send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL);
        return socket;
    }
    // Until the words have come, or the server hangs up.
    static std::string read(const UniqueFd& socket, const std::string& words = "no such words") {
        std::string text;
        char bytes[4096];
        while (text.find(words) == std::string::npos) {
            const ssize_t count = ::recv(socket.get(), bytes, sizeof(bytes), 0);
            if (count <= 0) break;
            text.append(bytes, static_cast<size_t>(count));
        }
        return text;
    }
    std::string ask(const std::string& request) const { return read(connect(request)); }
    void publish(uint64_t number) {
        ExportSnapshot snapshot;
        snapshot.number = number;
        m_feed.publish(std::make_shared<const ExportSnapshot>(snapshot));
    }

    ExportFeed m_feed;
    std::optional<ExportServer> m_server;
};

TEST_F(ExportServerTest, AnswersOnlyWhatIsMeantForIt) {
    const std::string large = "X: " + std::string(4000, 'y') + "\r\n";
    const struct {
        const char* line;
        std::string headers;
        const char* status;
        const char* end;
    } rows[] = {
        {"GET /small", "Host: localhost", "200", "\r\n\r\nsmall"},
        {"HEAD /small", "Host: [::1]:80", "200", "\r\n\r\n"},
        {"GET /small", "Host: LocalHost:80\r\nRange: bytes=0-1", "200", "small"},
        {"GET /small", "raNGE: neither read nor refused\r\nHost: localhost", "200", "small"},
        {"POST /small", "Host: 127.9.0.1\r\nContent-Length: 2", "405", "only GET and HEAD\n"},
        {"GET /small", "Host: 127.0.0.1.evil.example", "403", "its address\n"},
        {"HEAD /events", "Host: evil.example", "403", ""},
        {"GET /small", "X: 1", "403", "its address\n"},
        {"GET /../small", "Host: localhost", "404", ""},
        {"GET /throws", "Host: localhost", "500", "why\n"},
        {"\x16\x03\x01", "X: 1", "400", ""},
        {"GET /small", large + large + large + large + large + "X: 1", "", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line + (" with " + row.headers.substr(0, 40)));
        const std::string answer = ask(row.line + (" HTTP/1.1\r\n" + row.headers) + "\r\n\r\n");
        const std::string_view status = std::string_view(answer).substr(0, 12);
        EXPECT_TRUE(status.ends_with(row.status) && answer.ends_with(row.end)) << answer;
        EXPECT_EQ(status.ends_with("200"), std::string_view(row.status) == "200");
    }
}

TEST_F(ExportServerTest, PeersThatStandStillMakeRoom) {
    for (const std::string request : {"", "GET /large HTTP/1.1\r\nHost: localhost\r\n\r\n"}) {
        SCOPED_TRACE(request);
        std::vector<UniqueFd> peers;
        for (int i = 0; i < 16; ++i) peers.push_back(connect(request));
        errno = 0;
        EXPECT_TRUE(ask(kGet).starts_with("HTTP/1.1 503"));
        EXPECT_EQ(errno, 0) << "ended, not reset";
        EXPECT_TRUE(eventually([&] { return ask(kGet).ends_with("small"); }));
    }
}

TEST_F(ExportServerTest, StreamsGetEachSnapshotAndLeaveRoomForOthers) {
    const std::string events = "GET /events HTTP/1.1\r\nHost: localhost\r\n\r\n";
    publish(1);
    std::vector<UniqueFd> streams;
    for (int i = 0; i < 8; ++i) {
        streams.push_back(connect(events));
        EXPECT_THAT(read(streams.back(), "data: 1\n\n"), testing::HasSubstr("data: 1\n\n"));
    }
    EXPECT_TRUE(ask(events).starts_with("HTTP/1.1 503"));
    EXPECT_TRUE(ask(kGet).ends_with("small"));
    publish(2);
    for (const UniqueFd& stream : streams) {
        EXPECT_THAT(read(stream, "data: 2\n\n"), testing::HasSubstr("data: 2\n\n"));
    }
    streams.pop_back();
    uint64_t number = 2;
    EXPECT_TRUE(eventually([&] {
        publish(++number);  // at which the end of the reader is seen
        streams.push_back(connect(events));
        return read(streams.back(), "data: ").starts_with("HTTP/1.1 200");
    }));
    const UniqueFd idle = connect("");
    m_server.reset();
    EXPECT_EQ(read(idle), "");
    for (const UniqueFd& stream : streams) (void)read(stream);
}

TEST(ListenAddressTest, TakesAddressAndPort) {
    for (const char* text : {"127.0.0.1:1", "localhost:0", "[::1]:65535", "127.1.2.3:80"}) {
        EXPECT_TRUE(ListenAddress(text).isLoopback()) << text;
    }
    for (const char* text : {"0.0.0.0:80", "[::]:80", "10.0.0.1:80", "128.0.0.1:80"}) {
        EXPECT_FALSE(ListenAddress(text).isLoopback()) << text;
    }
    for (const char* text : {"", "80", ":80", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "[::1]",
                             "::1:80", "[127.0.0.1]:80", "host:80", "127.0.0.1:-1", "[::1:80"}) {
        EXPECT_THROW(ListenAddress{text}, UsageError) << text;
    }
}

}  // namespace
}  // namespace kelm::ctl
