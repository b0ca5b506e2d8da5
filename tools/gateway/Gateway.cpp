#include "tools/gateway/Gateway.h"

#include <algorithm>
#include <map>
#include <utility>

namespace kelm::gateway {

Gateway::Gateway(Engine& engine, const std::string& folder, ModelKeeper::Say say,
                 const GatewayOptions& options)
    : m_engine(engine),
      m_textMemory(options.textMemory),
      m_keeper(ModelFolder(folder), engine, m_chores, m_registry, std::move(say)) {
    if (!options.accessLog.empty()) m_accessLog.emplace(options.accessLog);
    m_watch = std::thread([this] { watchDevices(); });
}

Gateway::~Gateway() {
    {
        MutexLock lock(m_mutex);
        m_isEnding = true;
    }
    m_ends.notifyAll();
    m_watch.join();
}

void Gateway::watchDevices() {
    constexpr std::chrono::milliseconds kInterval(250);
    MutexLock lock(m_mutex);
    while (!m_isEnding) {
        m_ends.waitFor(m_mutex, kInterval);
        lock.unlock();
        for (const auto& each : m_registry.all()) each->takeBack();
        lock.lock();
    }
}

std::string Gateway::whyNot() const {
    if (std::string reason = m_engine.whyNot(); !reason.empty()) return reason;
    if (!m_keeper.hasTriedAll()) return "models are being loaded";
    std::string reason = "no model serves";
    for (const auto& each : m_registry.all()) {
        reason = each->whyNot();
        if (reason.empty()) return reason;
    }
    return reason;
}

AgentState Gateway::agentState() const {
    AgentState state{.isDraining = m_isDraining, .whyNot = whyNot()};
    std::map<int32_t, uint32_t> devices;  // by subclass: models share them
    for (const auto& each : m_registry.all()) {
        devices[each->description().subclass] = each->devices();
        state.window = std::max<uint64_t>(state.window, each->graph().window());
        state.waiting += each->waiting();
    }
    for (const auto& [subclass, count] : devices) state.devices += count;
    return state;
}

void Gateway::recordEnd(RequestRecord record) const {
    record.took = RequestRecord::Clock::now() - record.begun;
    m_metrics.add(record);
    if (m_accessLog) m_accessLog->add(record);
}

std::string Gateway::metricsText() const {
    return m_metrics.text(m_registry, {.lostLines = m_accessLog ? m_accessLog->lost() : 0,
                                       .textBytes = m_textMemory.held()});
}

void Gateway::reopenLog() {
    if (m_accessLog) m_accessLog->reopen();
}

}  // namespace kelm::gateway
