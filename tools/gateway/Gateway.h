#pragma once

#include <atomic>
#include <cstddef>
#include <optional>
#include <string>
#include <thread>

#include "tools/gateway/AccessLog.h"
#include "tools/gateway/AgentLine.h"
#include "tools/gateway/Chores.h"
#include "tools/gateway/GatewayMetrics.h"
#include "tools/gateway/MemoryBudget.h"
#include "tools/gateway/ModelKeeper.h"
#include "tools/gateway/ModelRegistry.h"
#include "tools/gateway/RequestRecord.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm::gateway {

struct GatewayOptions {
    size_t textMemory = size_t{64} << 20;  // bytes of JSON that all requests may hold together
    std::string accessLog = {};            // a file, "-" for the standard output; empty: none
};

// What both protocols serve: the models, whether requests are wanted, and what is told of those
// that have ended. Servers end before it.
//
// Threads: any; one of its own sees to models that have lost their devices. Owns: models and their
// keeper. The engine is borrowed for its life. Locks: m_mutex, a leaf.
class Gateway : public NonCopyable {
 public:
    static constexpr const char* kName = "kelm-gateway";

    // Throws if there is no such folder, or the access log cannot be opened.
    Gateway(Engine& engine, const std::string& folder, ModelKeeper::Say say,
            const GatewayOptions& options = {});
    ~Gateway();

    const ModelRegistry& models() const { return m_registry; }
    MemoryBudget& textMemory() const { return m_textMemory; }
    GatewayMetrics& metrics() const { return m_metrics; }

    // A model serves, and could run now.
    bool isReady() const { return !m_isDraining && whyNot().empty(); }
    // Ready no more; requests are served on.
    void drain() { m_isDraining = true; }
    AgentState agentState() const;

    // Each request of either protocol, once, when its answer has left or cannot leave any more.
    void recordEnd(RequestRecord record) const;
    std::string metricsText() const;
    void reopenLog();

 private:
    std::string whyNot() const;
    void watchDevices() EXCLUDES(m_mutex);

    Engine& m_engine;
    std::atomic<bool> m_isDraining{false};  // atomic: a hint, which guards nothing
    mutable MemoryBudget m_textMemory;
    mutable GatewayMetrics m_metrics;
    mutable std::optional<AccessLog> m_accessLog;
    Chores m_chores;
    ModelRegistry m_registry;
    ModelKeeper m_keeper;
    Mutex m_mutex;
    CondVar m_ends;
    bool m_isEnding GUARDED_BY(m_mutex) = false;
    std::thread m_watch;
};

}  // namespace kelm::gateway
