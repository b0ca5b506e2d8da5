#include "accelerators/TensorClient.h"

#include <algorithm>
#include <utility>

#include "fakes/Eventually.h"

namespace kelm {

namespace {

// With a reset on its way a graph may have to wait for some passes of the scheduler.
constexpr std::chrono::seconds kPatience{60};
constexpr uint8_t kPoison = 0xa5;

}  // namespace

TensorClient::TensorClient(const std::string& path, const LoadPlan& plan, LoadBoard& board,
                           const TensorPlan& tensors)
    : LoadClient(path, plan, board), m_tensors(tensors) {}

uint64_t TensorClient::createGraph(const std::string& graph) {
    const auto model =
        simulator::Model::parse({reinterpret_cast<const uint8_t*>(graph.data()), graph.size()});
    Graph& added = m_graphs.emplace_back();
    added.model = model.value();
    for (uint64_t i = 0; i < plan().depth; ++i) {
        const auto type =
            m_tensors.type.value_or(i % 2 == 0 ? KELM_BUFFER_ION : KELM_BUFFER_SHARE_MEMORY);
        added.free.push_back({std::make_unique<SharedTensor>(type, added.model.inputSize),
                              std::make_unique<SharedTensor>(type, added.model.outputSize)});
    }
    auto request = raw().make<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ);
    request.clientId = id();
    request.subclass = m_tensors.subclass;
    plan().name.copy(request.graphName, sizeof(request.graphName) - 1);
    m_tensors.streamId.copy(request.streamId, sizeof(request.streamId) - 1);
    m_tensors.tag.copy(request.graphTag, sizeof(request.graphTag) - 1);
    request.head.base.dataNum = 1;
    request.head.base.dataSize[0] = graph.size();
    if (!raw().send(request, {}, graph)) return 0;
    const auto answer = raw().receive(kPatience);
    return answer ? answer->as<KelmMsgRspCreateGraph>().graphId : 0;
}

bool TensorClient::send(KelmMsgReqInferTask request, size_t graph) {
    Slot slot = std::move(m_graphs[graph].free.back());
    m_graphs[graph].free.pop_back();
    std::ranges::generate(slot.input->bytes(), [this] { return static_cast<uint8_t>(m_random()); });
    std::ranges::fill(slot.output->bytes(), kPoison);
    std::vector<int> descriptors;
    slot.input->attach(request, KELM_FD_INPUT, descriptors);
    slot.output->attach(request, KELM_FD_OUTPUT, descriptors);
    m_running.emplace(request.head.reqSeqNo, Running{graph, std::move(slot)});
    return raw().send(request, descriptors);
}

std::string TensorClient::checkResult(uint64_t sequence) {
    auto running = m_running.extract(sequence);
    Graph& graph = m_graphs[running.mapped().graph];
    Slot& slot = running.mapped().slot;
    std::vector<uint8_t> expected(slot.output->bytes().size());
    graph.model.infer(slot.input->bytes(), expected);
    if (!std::ranges::equal(slot.output->bytes(), expected)) return "wrong result";
    if (slot.output->isNamed() && !slot.output->hasItsName()) return "its name was taken away";
    graph.free.insert(graph.free.begin(), std::move(slot));
    return {};
}

TensorLoad::TensorLoad(const std::string& path, const LoadPlan& plan, const TensorPlan& tensors)
    : m_client(std::make_unique<TensorClient>(path, plan, m_board, tensors)),
      m_end(std::async(std::launch::async, [this] { return m_client->run(); })) {}

TensorLoad::~TensorLoad() {
    if (m_client) hangUp();
}

bool TensorLoad::getsOn(uint64_t more) const {
    const uint64_t goal = done() + more;
    const auto ended = [this] {
        return m_end.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready;
    };
    const bool got = eventually([&] { return done() >= goal || ended(); }, kPatience);
    return got && done() >= goal;
}

std::string TensorLoad::finish() {
    m_board.stop = true;
    const std::string result = m_end.get();
    m_client.reset();
    return result;
}

}  // namespace kelm
