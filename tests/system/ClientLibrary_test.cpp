#include <sys/mman.h>

#include "client/Client.h"
#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"

namespace kelm {
namespace {

using client::Client;
using client::ErrorKind;
using client::InferRequest;
using client::InferResult;

class ClientLibraryTest : public SystemFixture {
 protected:
    void connect() {
        auto client = Client::connect(path());
        ASSERT_TRUE(client) << client.error().text();
        m_client = std::move(client.value());
        ASSERT_FALSE(m_client->registerClient("library"));
        const auto graph = m_client->createGraph(std::as_bytes(std::span(m_blob)), {});
        ASSERT_TRUE(graph) << graph.error().text();
        m_graph = graph.value();
    }
    InferRequest request(uint64_t cookie = 0) const {
        InferRequest request;
        request.graphId = m_graph.id;
        request.cookie0 = cookie;
        request.cookie1 = ~cookie;
        return request;
    }

    const std::string m_blob = "graph of the library";
    std::unique_ptr<Client> m_client;
    client::Graph m_graph;
};

TEST_F(ClientLibraryTest, CallsBringWhatTheServiceSaid) {
    start(0);
    ASSERT_NO_FATAL_FAILURE(connect());
    EXPECT_EQ(m_graph.inputSize, 36000U);
    EXPECT_EQ(m_graph.outputSize, 4000U);
    const std::string file = service().files().write("graph", m_blob);
    const auto twin = m_client->createGraphFromFile(file, {});
    ASSERT_TRUE(twin) << twin.error().text();
    EXPECT_EQ(twin.value().id, m_graph.id);
    EXPECT_TRUE(m_client->queryBufferSize(m_graph.id));

    client::TensorPool tensors(m_graph.inputSize, m_graph.outputSize);
    const auto slot = tensors.acquire().value();
    InferRequest shared = request(5);
    shared.input = slot->inputTensor();
    shared.output = slot->outputTensor();
    const InferResult result = m_client->infer(shared);
    EXPECT_FALSE(result.error) << result.error.text();
    EXPECT_EQ(result.cookie0, 5U);
    EXPECT_EQ(result.cookie1, ~5ULL);
    EXPECT_GT(result.acceptLatency.count(), 0);
    EXPECT_GE(result.resultLatency, result.acceptLatency);
    EXPECT_TRUE(eventually([&] {  // it may still be on its way out
        const auto stage = m_client->queryTask(result.taskId);
        return !stage && stage.error().code() == KELM_ERROR_INVALID_TASK;
    }));

    using client::StatusPart;
    using client::StatusParts;
    const auto ask = [&](StatusParts parts) { return m_client->queryStatus(parts).value(); };
    EXPECT_EQ(ask(StatusPart::kDevices).devices.size(), 3U);
    EXPECT_EQ(ask(StatusPart::kGraphs).graphs.size(), 1U);
    EXPECT_EQ(ask(StatusPart::kClients).clients.at(0).name, "library");
    EXPECT_EQ(ask(StatusPart::kSchedulers).taskScheduler, "TS.Polling");
    const auto all = ask(StatusParts::all());
    EXPECT_EQ(all.devices.size() + all.graphs.size() + all.clients.size(), 5U);
    EXPECT_EQ(all.deviceScheduler, "DS.Squeeze2");

    EXPECT_FALSE(m_client->destroyGraph(m_graph.id));
    EXPECT_EQ(m_client->infer(request()).error.code(), KELM_ERROR_INVALID_GRAPH);
    EXPECT_FALSE(m_client->unregister());
    EXPECT_EQ(m_client->infer(request()).error.kind(), ErrorKind::kConnectionLost);
}

TEST_F(ClientLibraryTest, ResultsReachTheirOwnCallers) {
    constexpr uint64_t kCalls = 300;
    start(0);
    ASSERT_NO_FATAL_FAILURE(connect());
    std::vector<std::future<void>> callers;
    for (uint64_t caller = 0; caller < 4; ++caller) {
        callers.push_back(std::async(std::launch::async, [this, caller] {
            for (uint64_t i = 0; i < kCalls; ++i) {
                auto future = m_client->inferAsync(request(caller * kCalls + i));
                uint64_t accepted = 0;
                std::promise<InferResult> end;
                m_client->inferAsync(
                    request(i), [&](const InferResult& result) { end.set_value(result); },
                    [&](uint64_t taskId) { accepted = taskId; });
                const InferResult result = end.get_future().get();
                EXPECT_FALSE(result.error) << result.error.text();
                EXPECT_EQ(result.cookie0, i);
                EXPECT_EQ(result.taskId, accepted);
                EXPECT_EQ(future.get().cookie0, caller * kCalls + i);
            }
        }));
    }
    for (auto& caller : callers) caller.get();
}

TEST_F(ClientLibraryTest, DescriptorTensorIsClosedByTheService) {
    start(0);
    ASSERT_NO_FATAL_FAILURE(connect());
    const size_t before = descriptors();
    const UniqueFd memory(::memfd_create("tensor", MFD_CLOEXEC));
    InferRequest passed = request();
    passed.input = passed.output =
        passed.aux = {client::Tensor::Kind::kDescriptor, "", memory.get(), m_graph.inputSize};
    const auto unreadable = m_client->infer(passed);  // no device buffer, which matters to none
    EXPECT_FALSE(unreadable.error) << unreadable.error.text();
    EXPECT_TRUE(eventually([&] { return descriptors() <= before; })) << descriptors();
    EXPECT_GE(::lseek(memory.get(), 0, SEEK_CUR), 0);  // the caller's own stays open
}

TEST_F(ClientLibraryTest, CanceledTaskEndsItsCallAndDoesNotRun) {
    constexpr uint64_t kTasks = 40;
    start(200);
    ASSERT_NO_FATAL_FAILURE(connect());
    Mutex mutex;
    std::map<uint64_t, ErrorKind> ends;  // by cookie
    std::promise<uint64_t> lastTask;
    for (uint64_t i = 0; i < kTasks; ++i) {
        const auto done = [&](const InferResult& result) {
            MutexLock lock(mutex);
            EXPECT_TRUE(ends.emplace(result.cookie0, result.error.kind()).second);
        };
        const auto accepted = [&, i](uint64_t taskId) {
            if (i == kTasks - 1) lastTask.set_value(taskId);
        };
        m_client->inferAsync(request(i), done, accepted, std::chrono::minutes(1));
    }
    const uint64_t task = lastTask.get_future().get();
    const auto stage = m_client->queryTask(task);
    ASSERT_TRUE(stage) << stage.error().text();
    EXPECT_EQ(stage.value(), client::TaskStage::kQueued);
    const auto canceled = m_client->cancel(task);
    ASSERT_TRUE(canceled) << canceled.error().text();
    EXPECT_TRUE(canceled.value());
    const auto again = m_client->cancel(task);
    EXPECT_FALSE(again && again.value());
    m_client.reset();
    EXPECT_EQ(ends.size(), kTasks);
    EXPECT_EQ(ends[kTasks - 1], ErrorKind::kCanceled);
}

}  // namespace
}  // namespace kelm
