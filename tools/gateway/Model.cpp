#include "tools/gateway/Model.h"

#include <algorithm>
#include <future>
#include <utility>

#include "tools/gateway/Failure.h"
#include "tools/gateway/Inference.h"

namespace kelm::gateway {

std::shared_ptr<Model> Model::load(Engine& engine, Chores& chores,
                                   const ModelDescription& description,
                                   const std::string& graphFile) {
    std::unique_ptr<EngineGraph> graph = engine.load(description, graphFile);
    description.requireFit(graph->inputBytes(), graph->outputBytes());
    std::unique_ptr<Model> model(new Model(engine, chores, description, std::move(graph)));
    model->warmUp();
    chores.owe();
    return {model.release(),
            [&chores](Model* ended) { chores.addOwed([ended] { delete ended; }); }};
}

Model::Model(Engine& engine, Chores& chores, ModelDescription description,
             std::unique_ptr<EngineGraph> graph)
    : m_engine(engine),
      m_chores(chores),
      m_description(std::move(description)),
      m_graph(std::move(graph)) {}

std::string Model::whyNot() const {
    std::string reason = m_engine.whyNot();
    if (!reason.empty() || devices() > 0) return reason;
    return "the service has no device of subclass " + std::to_string(m_description.subclass) +
           ", which model '" + m_description.name + "' needs";
}

uint32_t Model::waiting() const {
    const uint32_t all = m_entered;
    return all - std::min(all, m_graph->window());
}

void Model::begin(const std::weak_ptr<Inference>& inference) {
    MutexLock lock(m_mutex);
    m_begun.remove_if([](const auto& each) { return each.expired(); });
    m_begun.push_back(inference);
}

void Model::takeBack() {
    const std::string reason = whyNot();
    if (reason.empty()) return;
    std::list<std::weak_ptr<Inference>> begun;
    {
        MutexLock lock(m_mutex);
        begun = m_begun;
    }
    for (const auto& each : begun) {
        if (const auto inference = each.lock()) inference->takeBack(reason);
    }
}

void Model::requireRoom() const {
    if (const std::string reason = whyNot(); !reason.empty()) {
        throw Failure(Cause::kUnavailable, reason);
    }
    if (m_entered >= m_graph->window() + m_description.queue) refuseFull();
}

void Model::enter() {
    requireRoom();
    // Others may have entered meanwhile.
    if (m_entered.fetch_add(1) >= m_graph->window() + m_description.queue) {
        leave();
        refuseFull();
    }
}

void Model::refuseFull() const {
    throw Failure(Cause::kFull,
                  "the queue of model '" + m_description.name + "' is full; try again later");
}

void Model::warmUp() {
    for (uint32_t i = 0; i < m_description.warmup; ++i) {
        const auto slot = m_graph->acquire();
        std::promise<TaskEnd> promise;
        m_graph->start(*slot, {.deadline = m_description.deadline},
                       [&promise](const TaskEnd& end) { promise.set_value(end); });
        const TaskEnd end = promise.get_future().get();
        if (end.error != 0) throw Failure::ofKelm(end.error, "warming up failed: " + end.text);
    }
}

}  // namespace kelm::gateway
