#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>

#include "tools/gateway/RequestRecord.h"
#include "tools/metrics/Latencies.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm::gateway {

class ModelRegistry;

// Counts requests as they end. What clients make up is one series: a name of no model, and models
// beyond 128 that had their own.
//
// Threads: any. Locks: m_mutex, a leaf.
class GatewayMetrics : public NonCopyable {
 public:
    void add(const RequestRecord& record) EXCLUDES(m_mutex);
    // How many there are now; each protocol counts its own.
    std::atomic<int64_t>& connections(Protocol protocol) {
        return m_connections[static_cast<size_t>(protocol)];
    }

    // What others count.
    struct Facts {
        uint64_t lostLines = 0;  // of the access log
        size_t textBytes = 0;    // of JSON
    };
    // In Prometheus' text format.
    std::string text(const ModelRegistry& models, const Facts& facts) const EXCLUDES(m_mutex);

 private:
    struct OfModel {
        Latencies requests;   // that went well
        Latencies atService;  // their tasks
    };
    using Answers = std::tuple<std::string, Protocol, int>;  // model, protocol, code

    std::array<std::atomic<int64_t>, 2> m_connections{};  // atomic: counts, which guard nothing
    mutable Mutex m_mutex;
    std::map<std::string, OfModel> m_models GUARDED_BY(m_mutex);
    std::map<Answers, uint64_t> m_answers GUARDED_BY(m_mutex);
};

}  // namespace kelm::gateway
