#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "tools/kelmctl/export/StopSignal.h"
#include "tools/metrics/Latencies.h"
#include "utils/Mutex.h"

namespace kelm::ctl {

// What a probe has seen.
struct ProbeResults {
    std::string graph;  // the file
    uint64_t successes = 0;
    uint64_t failures = 0;
    bool isLastGood = false;
    std::string why;      // of the last failure, in one line
    Latencies latencies;  // of the successes

    void addSuccess(double seconds);
    void addFailure(const std::string& reason);
};

// Runs one inference on zeros at an interval, through the client library as any program would, with
// the lowest priority and memory of its own. It has to come through within the interval, ten
// seconds at most. After a failure the next one connects and loads the graph anew.
//
// Threads: one of its own; any may ask. Owns: its connection. Locks: m_mutex, a leaf.
class GraphProbe {
 public:
    // The file of a compiled graph, which is read by this process.
    GraphProbe(std::string graph, std::chrono::milliseconds interval);
    ~GraphProbe();  // gives up what is under way; a graph that is being loaded is waited for
    GraphProbe(const GraphProbe&) = delete;
    GraphProbe& operator=(const GraphProbe&) = delete;

    // Begins the end, which the destructor waits for: several end at once.
    void stop() { m_stop.stop(); }
    ProbeResults results() EXCLUDES(m_mutex);

 private:
    class Session;

    void routine() EXCLUDES(m_mutex);
    void probe() EXCLUDES(m_mutex);

    const std::string m_graph;
    const std::chrono::milliseconds m_interval;
    std::unique_ptr<Session> m_session;  // the thread's; null: not connected
    StopSignal m_stop;
    Mutex m_mutex;
    ProbeResults m_results GUARDED_BY(m_mutex);
    std::thread m_thread;
};

}  // namespace kelm::ctl
