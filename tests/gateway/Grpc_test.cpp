#include "tests/gateway/GatewayFixture.h"
#include "tools/gateway/grpc/GrpcServer.h"

namespace kelm::gateway {
namespace {

// A frame of HTTP/2.
std::string frame(char type, char flags, char stream, const std::string& content) {
    std::string head{0, 0, 0, type, flags, 0, 0, 0, stream};
    for (size_t i = 0, size = content.size(); i < 3; ++i, size >>= 8) {
        head[2 - i] = static_cast<char>(size);
    }
    return head + content;
}

// A length as HPACK has it.
std::string measured(const std::string& text) {
    if (text.size() < 127) return static_cast<char>(text.size()) + text;
    const size_t rest = text.size() - 127;
    return "\x7f" + std::string{static_cast<char>(rest | 128), static_cast<char>(rest >> 7)} + text;
}

std::string header(const std::string& name, const std::string& value) {
    return '\0' + measured(name) + measured(value);
}

// The peer's part of the beginning.
std::string hello(const std::string& settings = "") {
    return "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + frame(4, 0, 0, settings);
}

// The head of a call, and with 1 as its flag the end of it.
std::string head(const std::string& method, char flag = 0, char stream = 1,
                 const std::string& more = "") {
    return frame(1, static_cast<char>(4 | flag), stream,
                 header(":method", "POST") + header(":scheme", "http") + header(":authority", "h") +
                     header(":path", method) + header("te", "trailers") +
                     header("content-type", "application/grpc") + more);
}

const std::string kLive = "/inference.GRPCInferenceService/ServerLive";
const std::string kInfer = "/inference.GRPCInferenceService/ModelInfer";
const std::string kWatch = "/grpc.health.v1.Health/Watch";
const std::string kNoMessage(5, '\0');

// A call by a peer that lets no byte of the answer come.
std::string callWithoutWindow(const std::string& method = kLive) {
    return hello(std::string("\0\4\0\0\0\0", 6)) + head(method) + frame(0, 1, 1, kNoMessage);
}

class GrpcTest : public GatewayTest {
 protected:
    GrpcServer& serveGrpc(const GrpcLimits& limits) {
        grpc.reset();
        if (!gateway) serve();
        std::vector<ListenSocket> sockets;
        sockets.emplace_back("127.0.0.1:0");
        return grpc.emplace(*gateway, std::move(sockets), 2, limits);
    }
    void SetUp() override {
        const std::string tensor = R"({"name":"t","datatype":"UINT8","shape":[4]})";
        dir.write("m.json", describe(tensor, tensor));
    }

    std::optional<GrpcServer> grpc;
};

const std::string kReset("\0\0\4\3\0\0\0\0\1", 9);

TEST_F(GrpcTest, PeerThatDoesNotReadItsAnswerIsCanceled) {
    // The same time is that of the call's message, which must have come by then.
    const uint16_t port = serveGrpc({.transfer = 1s}).port(0);
    EXPECT_TRUE(RawPeer(port).send(callWithoutWindow()).reads(kReset));
    EXPECT_TRUE(RawPeer(port).send(callWithoutWindow(kWatch)).reads(kReset));
}

TEST_F(GrpcTest, StopEndsWhatIsNotRead) {
    RawPeer peer(serveGrpc({}).port(0));
    // The head of the answer.
    ASSERT_TRUE(peer.send(callWithoutWindow()).reads("application/grpc"));
    EXPECT_FALSE(grpc->stop(50ms));
}

TEST_F(GrpcTest, StopWaitsForNoPeerWithoutACall) {
    const uint16_t port = serveGrpc({}).port(0);
    RawPeer silent(port), idle(port);
    // It never answers gRPC's ping, nor closes.
    ASSERT_TRUE(idle.send(hello() + head(kLive) + frame(0, 1, 1, kNoMessage)).reads("grpc-status"));
    EXPECT_TRUE(grpc->stop(10s));
}

TEST_F(GrpcTest, PeersAreLimited) {
    const std::string late = "the message took too long to come", part(3, '\0');
    const std::string large = std::string("\0\0\0\0\x14", 5) + std::string(20, '\1');
    const std::string goAway("\0\0\x8\7\0\0\0\0\0\x7f", 10);
    // To the model of SetUp, whose answer has each byte one higher.
    const std::string infer =
        std::string("\0\0\0\0\x18", 5) + "\n\1m*\r\n\1t\x12\5UINT8\x1a\1\4:\4abcd";
    const std::string longest = header("grpc-timeout", "99999999H");
    std::string pings, calls, watches;
    for (char i = 0; i < 9; ++i) pings += frame(6, 0, 0, std::string(8, i));
    for (char i = 1; i < 9; i += 2) calls += head(kInfer, 0, i);
    for (char i = 1; i < 9; i += 2) watches += head(kWatch, 0, i) + frame(0, 1, i, kNoMessage);
    const struct {
        const char* what;
        GrpcLimits limits;
        std::string sent;
        std::string told;  // empty: the connection ends
    } rows[] = {
        {"a message does not end",
         {.message = 9, .transfer = 50ms},
         head(kInfer) + frame(0, 0, 1, part),
         late},
        {"a message does not begin", {.message = 9, .transfer = 50ms}, head(kWatch), late},
        {"there is no message", {}, head(kInfer, 1), "the call has no message"},
        {"messages", {.message = 9}, head(kInfer) + frame(0, 0, 1, large), "larger than max"},
        {"plain messages", {.plain = 9}, head(kWatch) + frame(0, 0, 1, large), "than 9 bytes"},
        {"metadata", {}, head(kLive, 0, 1, header("x", std::string(9000, 'y'))), "exceeds"},
        {"streams", {.streams = 2}, calls, "Failed parsing HTTP/2"},
        {"calls", {.calls = 1}, calls, "too many calls"},
        {"watchers", {.watchers = 1}, watches, "too many watchers, more than 1;"},
        {"watchers of a peer", {.watchersOfPeer = 1}, watches, "watchers of one connection"},
        {"watchers are no calls",
         {.calls = 1},
         watches + head(kLive, 0, 9) + frame(0, 1, 9, kNoMessage),
         std::string("grpc-status\0010")},
        {"deadlines", {}, head(kInfer, 0, 1, longest) + frame(0, 1, 1, infer), "bcde"},
        {"pings", {}, pings, "too_many_pings"},
        {"idle", {.idle = 50ms}, "", "enter idle"},
        {"age", {.age = 50ms}, head(kInfer), goAway},
        {"a ping is not answered", {.ping = 50ms, .pong = 50ms}, head(kInfer), ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        RawPeer peer(serveGrpc(row.limits).port(0));
        ASSERT_TRUE(peer.send(hello()).reads(std::string("\0\0\0\4\1", 5)));
        peer.send(frame(4, 1, 0, "") + row.sent);
        EXPECT_TRUE(row.told.empty() ? peer.ends() : peer.reads(row.told));
    }
    EXPECT_TRUE(RawPeer(serveGrpc({.handshake = 50ms}).port(0)).ends());
}

}  // namespace
}  // namespace kelm::gateway
