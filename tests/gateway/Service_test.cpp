#include "fakes/ServiceProcess.h"
#include "tests/gateway/GatewayFixture.h"
#include "tools/gateway/LibkelmEngine.h"

namespace kelm::gateway {
namespace {

// On the real service, whose simulated graphs take 36,000 bytes and give 4,000.
class ServiceTest : public GatewayTest {
 protected:
    void startService() {
        service.start();
        ASSERT_TRUE(service.waitReady()) << service.log();
    }
    bool isAnswered(const std::string& status) const {
        RawPeer peer = connect(request);
        const std::string answer = peer.answer();
        return answer.starts_with("HTTP/1.1 " + status) &&
               (status != "200" || answer.size() > 4000);
    }

    const std::string json = R"({"inputs":[{"name":"i","datatype":"FP16","shape":[18000],)"
                             R"("parameters":{"binary_data_size":36000}}],)"
                             R"("parameters":{"binary_data_output":true}})";
    const std::string request = post(json + std::string(36000, 'x'), jsonLength(json.size()));
    ServiceProcess service;
};

TEST_F(ServiceTest, ComesAndGoesWithTheService) {
    const std::string output = R"({"name":"o","datatype":"INT32","shape":[1000]})";
    dir.write("g", "graph");
    dir.write("m.json", describe(R"({"name":"i","datatype":"FP16","shape":[18000]})", output,
                                 R"(,"warmup":2)"));
    dir.write("large.json", describe(R"({"name":"i","datatype":"FP16","shape":[18001]})", output));
    startService();
    LibkelmEngine libkelm(service.socketPath());
    serve({}, &libkelm);
    EXPECT_TRUE(isAnswered("200"));
    EXPECT_THROW((void)gateway->models().find("large"), Failure);
    {
        MutexLock lock(mutex);
        EXPECT_THAT(said, HasSubstr("ends at byte 36002, but the graph's input has 36000"));
    }
    service.signal(SIGKILL);
    (void)service.waitExit();
    EXPECT_TRUE(eventually([&] { return isAnswered("503"); }));
    EXPECT_FALSE(gateway->isReady());
    startService();
    EXPECT_TRUE(eventually([&] { return gateway->isReady(); }));
    EXPECT_TRUE(eventually([&] { return isAnswered("200"); }));
    server.reset();
    gateway.reset();  // before its engine
}

}  // namespace
}  // namespace kelm::gateway
