#include "tests/gateway/GatewayFixture.h"
#include "tools/gateway/grpc/GrpcServer.h"

namespace kelm::gateway {
namespace {

// A frame of HTTP/2 shorter than 256 bytes.
std::string frame(char type, char flags, char stream, const std::string& content) {
    return std::string{'\0', '\0',  static_cast<char>(content.size()), type, flags, 0, 0,
                       0,    stream} +
           content;
}

std::string header(const std::string& name, const std::string& value) {
    return std::string{'\0', static_cast<char>(name.size())} + name +
           static_cast<char>(value.size()) + value;
}

// A call of ServerLive by a peer that lets no byte of the answer come.
std::string callWithoutWindow() {
    const std::string headers =
        header(":method", "POST") + header(":scheme", "http") + header(":authority", "h") +
        header(":path", "/inference.GRPCInferenceService/ServerLive") + header("te", "trailers") +
        header("content-type", "application/grpc");
    const std::string settings("\0\4\0\0\0\0", 6);  // a window of no bytes
    return "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + frame(4, 0, 0, settings) + frame(1, 4, 1, headers) +
           frame(0, 1, 1, std::string(5, '\0'));
}

class GrpcTest : public GatewayTest {
 protected:
    GrpcServer& serveGrpc(const GrpcLimits& limits) {
        serve();
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
    RawPeer peer(serveGrpc({.transfer = 50ms}).port(0));
    EXPECT_TRUE(peer.send(callWithoutWindow()).reads(kReset));
}

TEST_F(GrpcTest, StopEndsWhatIsNotRead) {
    RawPeer peer(serveGrpc({}).port(0));
    // The head of the answer.
    ASSERT_TRUE(peer.send(callWithoutWindow()).reads("application/grpc"));
    EXPECT_FALSE(grpc->stop(50ms));
}

}  // namespace
}  // namespace kelm::gateway
