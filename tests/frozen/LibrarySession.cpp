#include "tests/frozen/LibrarySession.h"

#include "client/Client.h"
#include "client/SnapshotReader.h"
#include "tests/wire/WireClient.h"
#include "utils/UniqueFd.h"

namespace kelm {
namespace {

using client::Client;
using client::Error;
using client::InferRequest;
using client::InferResult;
using client::Result;
using client::Tensor;

constexpr int kTasks = 6;

// Each behind a blank.
template <class... Parts>
std::string words(const Parts&... parts) {
    std::ostringstream text;
    ((text << ' ' << parts), ...);
    return text.str();
}

std::string describe(const Error& error) {
    if (error.kind() == client::ErrorKind::kCanceled) return words("canceled");
    return error ? words("error", error.code()) : words("ok");
}

std::string describe(const client::Graph& graph) {
    return words(graph.id, graph.inputSize, graph.outputSize, graph.debugSize, graph.timeTakenSize,
                 graph.thermalSize);
}

std::string describe(const client::BufferSizes& sizes) { return words(sizes.output, sizes.aux); }
std::string describe(const client::TaskStage& stage) { return words(static_cast<int>(stage)); }
std::string describe(const bool& canceled) { return words(canceled ? "canceled" : "runs on"); }

std::string describe(const InferResult& result) {
    return describe(result.error) + words(result.taskId, result.cookie0, result.cookie1);
}

std::string describe(const client::ServiceStatus& status) {
    std::string text =
        words(status.parts.bits(), status.serviceFps, status.deviceScheduler, status.taskScheduler);
    text += ";" + words("devices", status.deviceCount);
    for (const auto& row : status.devices) {
        text += words(row.name, row.fps, row.graph, row.thermal, row.id, row.subclass);
    }
    text += ";" + words("graphs", status.graphCount);
    for (const auto& row : status.graphs) text += words(row.name, row.fpsIn, row.fpsOut);
    text += ";" + words("clients", status.clientCount);
    for (const auto& row : status.clients) text += words(row.name, row.fps);
    return text;
}

std::string describe(const client::Snapshot& snapshot) {
    std::string text = words("devices");
    for (const auto& row : snapshot.devices) {
        text += words(row.id, row.thermal, row.throttlingLevel);
        for (const auto& graph : row.current) {
            text += words(graph.name, graph.loadTime, graph.inferences, graph.fps);
        }
        for (const auto& graph : row.previous) {
            text += words(graph.name, graph.loadTime, graph.unloadTime, graph.inferences);
        }
    }
    text += ";" + words("graphs", snapshot.graphCount);
    for (const auto& row : snapshot.graphs) {
        text += words(row.id, row.name, row.fpsIn, row.fpsOut, row.runningDevices, row.inferences,
                      row.waitingTasks, row.clientCount);
        for (const std::string& name : row.clients) text += words(name);
    }
    text += ";" + words("clients", snapshot.clientCount);
    for (const auto& row : snapshot.clients) {
        text +=
            words(row.id, row.name, row.apiMajor, row.apiMinor, row.inferences, row.waitingTasks);
    }
    const auto& memory = snapshot.memory;
    return text + ";" +
           words("memory", memory.virtualMB, memory.residentMB, memory.sharedMB, memory.totalMB);
}

template <class Value>
std::string describe(const Result<Value>& result) {
    return result ? describe(result.value()) : describe(result.error());
}

// Tasks of all kinds of tensors; each is sent once the one before has been accepted.
class Tasks {
 public:
    Tasks(Client& client, const client::Graph& graph)
        : m_client(client), m_graph(graph), m_pool(graph.inputSize, graph.outputSize) {}

    // Returns its id.
    uint64_t start(bool byName, uint32_t auxFlags) {
        InferRequest request;
        const uint64_t number = m_ends.size() + 1;
        request.graphId = m_graph.id;
        request.cookie0 = 100 + number;
        request.cookie1 = 1000 + number;
        const auto slot = m_pool.acquire().value();
        request.input = byName ? slot->inputTensor() : descriptor(m_input, m_graph.inputSize);
        request.output = byName ? slot->outputTensor() : descriptor(m_output, m_graph.outputSize);
        if (auxFlags != 0) request.aux = descriptor(m_aux, m_graph.timeTakenSize);
        request.auxFlags = auxFlags;
        auto end = std::make_shared<std::promise<std::string>>();
        auto accepted = std::make_shared<std::promise<uint64_t>>();
        m_ends.push_back(end->get_future());
        m_client.inferAsync(
            request,
            [end, accepted](const InferResult& result) {
                end->set_value(describe(result));
                if (result.taskId == 0) accepted->set_value(0);  // never was
            },
            [accepted](uint64_t task) { accepted->set_value(task); });
        return accepted->get_future().get();
    }
    std::vector<std::future<std::string>>& ends() { return m_ends; }

 private:
    static Tensor descriptor(const UniqueFd& file, uint64_t size) {
        return {Tensor::Kind::kDescriptor, "", file.get(), size};
    }

    Client& m_client;
    const client::Graph m_graph;
    client::TensorPool m_pool;
    const UniqueFd m_input{::memfd_create("input", MFD_CLOEXEC)};
    const UniqueFd m_output{::memfd_create("output", MFD_CLOEXEC)};
    const UniqueFd m_aux{::memfd_create("aux", MFD_CLOEXEC)};
    std::vector<std::future<std::string>> m_ends;
};

}  // namespace

void LibrarySession::useUpNumbers(const std::string& directory) {
    for (int i = 0; i < 40; ++i) {
        WireClient client(directory + "/kelm_service.sock", "earlier");
        if (!client.unregister() || !client.waitClosed()) throw NoAnswer("cannot unregister");
    }
}

std::vector<std::string> LibrarySession::run(const std::string& directory,
                                             const std::string& graphFile) {
    std::vector<std::string> outcomes;
    const auto note = [&outcomes](const char* call, const std::string& outcome) {
        outcomes.push_back(std::string(call) + ":" + outcome);
    };
    auto connected = Client::connect(directory + "/kelm_service.sock");
    if (!connected) return {"connect:" + describe(connected.error())};
    Client& client = *connected.value();
    note("register", describe(client.registerClient("frozen client")));
    const auto bytes = std::as_bytes(std::span(std::string_view(kGraph)));
    const auto graph = client.createGraph(bytes, {.name = "frozen graph", .expectDevices = 2});
    note("create graph", describe(graph));
    if (!graph) return outcomes;
    note("create graph by path", describe(client.createGraphFromFile(graphFile, {})));
    const auto create = [&](const char* call, const client::GraphOptions& options) {
        const auto created = client.createGraph(bytes, options);
        note(call, describe(created));
        return created ? created.value().id : 0;
    };
    (void)create("create graph with a tag", {.name = "with a tag", .tag = "tag"});
    (void)create("create graph of another subclass", {.subclass = 9, .expectDevices = 3});
    const uint64_t ofStream =
        create("create graph of a stream", {.name = "of a stream", .streamId = "stream"});
    note("query buffer size", describe(client.queryBufferSize(ofStream)));
    // Before the others are used: what a report tells of two graphs has no order of its own.
    note("destroy graph of the stream", describe(client.destroyGraph(ofStream)));

    Tasks tasks(client, graph.value());
    uint64_t last = 0;
    for (uint32_t i = 0; i < kTasks; ++i) last = tasks.start(i % 2 == 0, i);
    // An accepted task is on its way to the queue. Once the first has ended it is surely there, and
    // stays behind the others until the next one ends.
    auto end = tasks.ends().begin();
    note("infer", end->get());
    note("query task", describe(client.queryTask(last)));
    note("cancel", describe(client.cancel(last)));
    while (++end != tasks.ends().end()) note("infer", end->get());
    note("query canceled task", describe(client.queryTask(last)));

    note("query status", describe(client.queryStatus()));
    {
        const auto reader = client::SnapshotReader::connect(directory + "/kelm_snapshot.sock");
        note("snapshot", reader ? describe(reader.value()->read()) : describe(reader.error()));
    }
    note("destroy graph", describe(client.destroyGraph(graph.value().id)));
    note("unregister", describe(client.unregister()));
    return outcomes;
}

}  // namespace kelm
