#include "tools/kelmctl/GraphSession.h"

#include <iostream>
#include <stdexcept>
#include <utility>

#include "tools/kelmctl/Interruption.h"
#include "tools/kelmctl/UsageError.h"

namespace kelm::ctl {

client::Deadline GraphSession::deadlineOf(const GraphChoice& choice) {
    constexpr double kLeast = 0.001;
    constexpr double kMost = 86400.0;
    if (!(choice.timeout >= kLeast && choice.timeout <= kMost)) {
        throw UsageError("a time-out is 0.001 to 86400 seconds");
    }
    return client::Deadline(static_cast<int64_t>(choice.timeout * 1000.0));
}

GraphSession::GraphSession(const GraphChoice& choice, Interruption& interruption)
    : GraphSession(choice, GraphFile(choice.graph, choice.graphByPath), interruption) {}

GraphSession::GraphSession(const GraphChoice& choice, GraphFile file, Interruption& interruption)
    : m_choice(choice),
      m_interruption(interruption),
      m_deadline(deadlineOf(choice)),
      m_file(std::move(file)) {}

void GraphSession::open() {
    m_service = take(client::Client::connect({}, m_deadline));
    m_service->onWarning([](const std::string& text) { std::cerr << "kelmctl: " << text << "\n"; });
    require(m_service->registerClient("kelmctl", m_deadline));
    m_interruption.setService(m_service);
    client::GraphOptions options;
    options.tag = m_choice.tag;
    options.streamId = m_choice.streamId;
    options.subclass = m_choice.subclass;
    m_graph = take(m_file.create(*m_service, options, m_deadline));
}

client::InferResult GraphSession::run(client::TensorSlot& slot) {
    client::InferRequest request;
    request.graphId = m_graph.id;
    request.input = slot.inputTensor();
    request.output = slot.outputTensor();
    std::future<client::InferResult> future = m_service->inferAsync(request, m_deadline);
    if (!m_interruption.waitFor(future)) {
        throw std::runtime_error("the service does not end the task");
    }
    client::InferResult result = future.get();
    require(result.error);
    return result;
}

void GraphSession::close() {
    require(m_service->destroyGraph(m_graph.id, m_deadline));
    require(m_service->unregister(m_deadline));
}

}  // namespace kelm::ctl
