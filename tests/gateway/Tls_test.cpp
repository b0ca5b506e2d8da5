#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>

#include "tests/gateway/GatewayFixture.h"
#include "tools/gateway/grpc/GrpcServer.h"

namespace kelm::gateway {
namespace {

namespace asio = boost::asio;
namespace ssl = boost::asio::ssl;

class TlsTest : public GatewayTest {
 protected:
    void SetUp() override {
        describeModel("m");
        serve();
    }
    // A certificate of its own, as NAME.crt and NAME.key.
    TlsFiles makeFiles(const std::string& name) const {
        const TlsFiles files{dir.path() + "/" + name + ".crt", dir.path() + "/" + name + ".key"};
        const std::string command =
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
            "-subj /CN=localhost -addext subjectAltName=DNS:localhost -keyout " +
            files.key + " -out " + files.certificate + " 2>/dev/null";
        EXPECT_EQ(std::system(command.c_str()), 0);
        return files;
    }
    // A peer that knows this certificate, and maybe trusts who serves there.
    struct Peer {
        Peer(const TlsFiles& files, uint16_t port) {
            trust.load_verify_file(files.certificate);
            stream.emplace(loop, trust);
            stream->set_verify_mode(ssl::verify_peer);
            stream->lowest_layer().connect({asio::ip::address_v4::loopback(), port});
            boost::system::error_code error;
            stream->handshake(ssl::stream_base::client, error);
            isTrusting = !error;
        }
        ssl::context trust{ssl::context::tls_client};
        asio::io_context loop;
        std::optional<ssl::stream<asio::ip::tcp::socket>> stream;
        bool isTrusting = false;
    };
    static bool trusts(const TlsFiles& files, uint16_t port) {
        return Peer(files, port).isTrusting;
    }
};

TEST_F(TlsTest, RequestsComeByTls) {
    const TlsFiles files = makeFiles("a");
    HttpServer tls(ListenSocket("127.0.0.1:0"), 2, {}, makeRestHandler(*gateway),
                   TlsPair::read(files));
    Peer known(files, tls.port());
    auto& peer = *known.stream;
    const auto answer = [&] {
        std::string text;
        boost::system::error_code error;
        asio::read_until(peer, asio::dynamic_buffer(text), "]}", error);
        return text;
    };
    const std::string request = post(kOk, "Expect: 100-continue\r\n");
    for (const char each : request) asio::write(peer, asio::buffer(&each, 1));
    EXPECT_THAT(answer(), AllOf(StartsWith("HTTP/1.1 100"), HasSubstr(R"("data":[2,3,4,5])")));

    engine.isHolding = true;
    asio::write(peer, asio::buffer(request));
    ASSERT_TRUE(eventually([&] { return engine.held() == 1; }));
    peer.lowest_layer().close();
    EXPECT_TRUE(eventually([&] { return engine.held() == 0; }));

    RawPeer plain(tls.port());
    plain.send("GET /v2 HTTP/1.1\r\nHost: h\r\n\r\n");
    EXPECT_THAT(plain.answer(), IsEmpty());
}

TEST_F(TlsTest, PairIsExchangedForConnectionsThatCome) {
    const TlsFiles before = makeFiles("a"), after = makeFiles("b");
    HttpServer rest(ListenSocket("127.0.0.1:0"), 2, {}, makeRestHandler(*gateway),
                    TlsPair::read(before));
    std::vector<ListenSocket> sockets;
    sockets.emplace_back("127.0.0.1:0");
    GrpcServer grpc(*gateway, std::move(sockets), 1, {}, TlsPair::read(before));
    for (const uint16_t port : {rest.port(), grpc.port(0)}) {
        EXPECT_TRUE(trusts(before, port));
        EXPECT_FALSE(trusts(after, port));
    }
    rest.renew(TlsPair::read(after));
    grpc.renew(TlsPair::read(after));
    for (const uint16_t port : {rest.port(), grpc.port(0)}) {
        EXPECT_TRUE(eventually([&] { return trusts(after, port); }));
        EXPECT_FALSE(trusts(before, port));
    }
}

TEST_F(TlsTest, FilesThatAreOfNoUseAreNamed) {
    const TlsFiles a = makeFiles("a"), b = makeFiles("b");
    const std::string none = dir.path() + "/none";
    const std::pair<TlsFiles, std::string> rows[] = {
        {{none, a.key}, none}, {{a.certificate, none}, none}, {{a.certificate, b.key}, b.key}};
    for (const auto& row : rows) {
        EXPECT_THAT([&] { (void)TlsPair::read(row.first); },
                    ThrowsMessage<std::runtime_error>(HasSubstr(row.second)));
    }
}

}  // namespace
}  // namespace kelm::gateway
