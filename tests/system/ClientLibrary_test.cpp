#include "client/Client.h"
#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"

namespace kelm {
namespace {

using client::ErrorKind;
using client::InferRequest;
using client::InferResult;
using client::StatusPart;
using client::StatusParts;

class ClientLibraryTest : public SystemFixture {
 protected:
    void startAndConnect(int latencyMs = 0) {
        start(latencyMs);
        m_client = client::Client::connect(path()).value();
        ASSERT_FALSE(m_client->registerClient("library"));
        m_graph = m_client->createGraph(std::as_bytes(std::span(m_blob)), {}).value();
    }
    InferRequest request(uint64_t cookie = 0) const {
        InferRequest request;
        request.graphId = m_graph.id;
        request.cookie0 = cookie;
        request.cookie1 = ~cookie;
        return request;
    }

    const std::string m_blob = "graph of the library";
    std::unique_ptr<client::Client> m_client;
    client::Graph m_graph;
};

TEST_F(ClientLibraryTest, CallsBringWhatTheServiceSaid) {
    ASSERT_NO_FATAL_FAILURE(startAndConnect());
    EXPECT_EQ(m_graph.inputSize, 36000U);
    EXPECT_EQ(m_graph.outputSize, 4000U);
    const std::string file = service().files().write("graph", m_blob);
    EXPECT_EQ(m_client->createGraphFromFile(file, {}).value().id, m_graph.id);
    EXPECT_TRUE(m_client->queryBufferSize(m_graph.id));

    client::TensorPool tensors(m_graph.inputSize, m_graph.outputSize);
    const auto slot = tensors.acquire().value();
    InferRequest shared = request(5);
    shared.input = slot->inputTensor();
    shared.output = slot->outputTensor();
    const InferResult result = m_client->infer(shared);
    EXPECT_FALSE(result.error) << result.error.text();
    EXPECT_EQ(result.cookie1, ~5ULL);
    EXPECT_GT(result.acceptLatency.count(), 0);
    EXPECT_GE(result.resultLatency, result.acceptLatency);

    const size_t before = descriptors();
    const UniqueFd memory(::memfd_create("tensor", MFD_CLOEXEC));
    InferRequest passed = request();
    passed.input = passed.output =
        passed.aux = {client::Tensor::Kind::kDescriptor, "", memory.get(), m_graph.inputSize};
    EXPECT_FALSE(m_client->infer(passed).error);  // no device buffer, which matters to none
    EXPECT_TRUE(eventually([&] { return descriptors() <= before; })) << descriptors();
    EXPECT_GE(::lseek(memory.get(), 0, SEEK_CUR), 0);  // the caller's own stays open

    const auto ask = [&](StatusParts parts) { return m_client->queryStatus(parts).value(); };
    EXPECT_EQ(ask(StatusPart::kDevices).devices.size(), 3U);
    EXPECT_EQ(ask(StatusPart::kGraphs).graphs.size(), 1U);
    EXPECT_EQ(ask(StatusPart::kClients).clients.at(0).name, "library");
    EXPECT_FALSE(m_client->queryStatus(StatusParts(uint64_t{32})));
    EXPECT_EQ(ask(StatusPart::kSchedulers).deviceScheduler, "DS.Squeeze2");

    EXPECT_FALSE(m_client->destroyGraph(m_graph.id));
    EXPECT_EQ(m_client->infer(request()).error.code(), KELM_ERROR_INVALID_GRAPH);
    EXPECT_FALSE(m_client->unregister());
    EXPECT_EQ(m_client->infer(request()).error.kind(), ErrorKind::kConnectionLost);
}

TEST_F(ClientLibraryTest, CanceledTaskEndsItsCallAndDoesNotRun) {
    constexpr uint64_t kTasks = 40;
    ASSERT_NO_FATAL_FAILURE(startAndConnect(50));
    std::vector<std::future<InferResult>> ahead;
    for (uint64_t i = 1; i < kTasks; ++i) ahead.push_back(m_client->inferAsync(request(i)));
    std::promise<uint64_t> accepted;
    std::promise<ErrorKind> end;
    m_client->inferAsync(
        request(), [&](const InferResult& result) { end.set_value(result.error.kind()); },
        [&](uint64_t taskId) { accepted.set_value(taskId); });
    const uint64_t task = accepted.get_future().get();
    EXPECT_EQ(m_client->queryTask(task).value(), client::TaskStage::kQueued);
    EXPECT_TRUE(m_client->cancel(task).value());
    EXPECT_EQ(end.get_future().get(), ErrorKind::kCanceled);
    for (auto& result : ahead) EXPECT_FALSE(result.get().error);
    EXPECT_TRUE(eventually([&] { return !m_client->queryTask(task); }));
    EXPECT_EQ(readPackage()->clients[0].inferenceTimes, kTasks - 1);
}

}  // namespace
}  // namespace kelm
