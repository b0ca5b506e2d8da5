#pragma once

#include <netinet/in.h>

#include "fakes/FakeEngine.h"
#include "tools/gateway/Gateway.h"
#include "tools/gateway/rest/HttpServer.h"
#include "tools/gateway/rest/RestRoutes.h"
#include "utils/UniqueFd.h"

namespace kelm::gateway {

// A peer that sends any bytes.
class RawPeer {
 public:
    explicit RawPeer(uint16_t port) : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(m_fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    }
    RawPeer& send(const std::string& bytes) {
        EXPECT_EQ(::send(m_fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
        return *this;
    }
    void endSending() { ::shutdown(m_fd.get(), SHUT_WR); }
    void close() { m_fd.reset(); }
    // An answer with its head; empty if the connection ends before it is whole.
    std::string answer() {
        size_t head = std::string::npos;
        while ((head = m_read.find("\r\n\r\n")) == std::string::npos) {
            if (!readMore()) return {};
        }
        const size_t length = m_read.find("Content-Length: ");
        const size_t body = length < head ? std::stoul(m_read.substr(length + 16)) : 0;
        while (m_read.size() < head + 4 + body) {
            if (!readMore()) return {};
        }
        std::string whole = m_read.substr(0, head + 4 + body);
        m_read.erase(0, whole.size());
        return whole;
    }
    // Whether they come, whatever is around them.
    bool reads(const std::string& bytes) {
        while (m_read.find(bytes) == std::string::npos) {
            if (!readMore()) return false;
        }
        return true;
    }
    // Whether the connection ends, whatever comes before.
    bool ends() {
        while (readMore()) {
        }
        return m_isAtEnd;
    }
    bool isClosed() { return m_read.empty() && !readMore(); }

 private:
    bool readMore() {
        char bytes[4096];
        pollfd ready{m_fd.get(), POLLIN, 0};
        if (::poll(&ready, 1, 20000) != 1) return false;
        const ssize_t count = ::recv(m_fd.get(), bytes, sizeof(bytes), 0);
        m_isAtEnd = count <= 0;
        if (count > 0) m_read.append(bytes, static_cast<size_t>(count));
        return count > 0;
    }
    UniqueFd m_fd;
    std::string m_read;
    bool m_isAtEnd = false;
};

// A gateway on a fake engine, and its REST on a port of its own.
class GatewayTest : public ::testing::Test {
 protected:
    void serve(HttpLimits limits = {}, Engine* other = nullptr, GatewayOptions options = {}) {
        gateway.emplace(
            other != nullptr ? *other : engine, dir.path(),
            [this](const std::string& line) {
                MutexLock lock(mutex);
                said += line + "\n";
            },
            options);
        server.emplace(ListenSocket("127.0.0.1:0"), 2, limits, makeRestHandler(*gateway));
        EXPECT_TRUE(eventually([&] { return gateway->isReady(); }));
    }
    RawPeer connect(const std::string& bytes = "") const {
        RawPeer peer(server->port());
        peer.send(bytes);
        return peer;
    }
    static std::string post(const std::string& body, const std::string& headers = "",
                            const std::string& model = "m") {
        return "POST /v2/models/" + model + "/infer HTTP/1.1\r\nHost: h\r\n" + headers +
               "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }
    static std::string jsonLength(size_t bytes) {
        return "Inference-Header-Content-Length: " + std::to_string(bytes) + "\r\n";
    }
    static std::string describe(const std::string& inputs, const std::string& outputs,
                                const std::string& more = "") {
        return R"({"graph": "g", "inputs": [)" + inputs + R"(], "outputs": [)" + outputs + "]" +
               more + "}";
    }
    // Of a model whose input and output are four bytes each; kOk is a request for it.
    static std::string fourBytes(const std::string& more = "") {
        return describe(R"({"name":"i","datatype":"UINT8","shape":[4]})",
                        R"({"name":"o","datatype":"UINT8","shape":[4]})", more);
    }
    void describeModel(const std::string& name, const std::string& more = "") const {
        dir.write(name + ".json", fourBytes(more));
    }
    static inline const std::string kOk =
        R"({"inputs":[{"name":"i","datatype":"UINT8","shape":[4],"data":[1,2,3,4]}]})";

    FakeEngine engine;
    TempDir dir;
    Mutex mutex;
    std::string said GUARDED_BY(mutex);
    std::optional<Gateway> gateway;
    std::optional<HttpServer> server;
};

}  // namespace kelm::gateway
