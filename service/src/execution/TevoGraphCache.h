#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "execution/QueueLedger.h"
#include "execution/TevoApi.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {

class KelmGraph;

// The library's handles of a graph on a device; null for what does not exist.
struct TevoHandles {
    qxGraphHandle_t* graphHandle = nullptr;
    qxFifoHandle_t* fifoIn = nullptr;   // host writes, device reads
    qxFifoHandle_t* fifoOut = nullptr;  // device writes, host reads
    unsigned int resultSize = 0;        // of an element of fifoOut, bytes
};

// What a task needs to run on a graph. Without handles when the graph's renewal has failed.
struct TevoQueues {
    TevoHandles handles;
    std::shared_ptr<QueueLedger> ledger;

    bool isUsable() const { return handles.graphHandle != nullptr; }
};

// One graph on a device. An inactive one takes up device memory and costs nothing to start again.
struct TevoGraphInfo {
    TevoQueues queues;
    bool active = true;  // a slave worker runs the graph now
    std::chrono::steady_clock::time_point lastActivateTime;
};

// Which graphs are on one device, and the device's name in these graphs' records.
//
// A graph is not cached, cached and active, or cached and inactive. A record that is a key here is
// alive: before a record is deleted its graph is taken out or forgotten, on a device that has
// failed or is being taken away too. So a key is followed under m_mutex and never without.
//
// Threads: any; the library is never called in here. Owns: nothing, handles are values.
// Locks: m_mutex, then a graph's or a ledger's.
class TevoGraphCache : public NonCopyable {
 public:
    explicit TevoGraphCache(const std::string& device) : m_device(device) {}

    // Makes a cached graph active; false if it is not cached.
    bool activate(KelmGraph* graph) EXCLUDES(m_mutex);
    // Takes in a new graph as active. False on a cache that is closed: the handles stay the
    // caller's.
    bool insert(KelmGraph* graph, const TevoQueues& queues) EXCLUDES(m_mutex);
    std::optional<TevoQueues> find(KelmGraph* graph) EXCLUDES(m_mutex);
    // Takes a cached graph's handles out, which become the caller's; the graph stays in.
    std::optional<TevoHandles> takeHandles(KelmGraph* graph) EXCLUDES(m_mutex);
    // Gives it others. False if it is not cached any more: the handles stay the caller's.
    bool renew(KelmGraph* graph, const TevoQueues& queues) EXCLUDES(m_mutex);
    // Makes a cached graph inactive.
    void deactivate(KelmGraph* graph) EXCLUDES(m_mutex);
    // Takes the graph out, if it is cached; its handles become the caller's.
    std::optional<TevoHandles> take(KelmGraph* graph) EXCLUDES(m_mutex);
    // The same with the inactive graph that was active longest ago; stores its name.
    std::optional<TevoHandles> takeOldestInactive(std::string& name) EXCLUDES(m_mutex);

    // Keep no key, but the handles for takeAll().
    void forget(KelmGraph* graph) EXCLUDES(m_mutex);
    void forgetAll() EXCLUDES(m_mutex);
    // forgetAll(), and nothing comes in any more.
    void close() EXCLUDES(m_mutex);
    // All handles, in the order of their keys. The records may be deleted: they are not touched.
    std::vector<TevoHandles> takeAll() EXCLUDES(m_mutex);

    // In order of their addresses.
    std::vector<KelmGraph*> getGraphs() EXCLUDES(m_mutex);
    std::vector<std::string> getNames() EXCLUDES(m_mutex);
    size_t getSize() EXCLUDES(m_mutex);

 private:
    using Entry = std::map<KelmGraph*, TevoGraphInfo>::iterator;

    TevoHandles takeUnsafe(Entry entry) REQUIRES(m_mutex);
    void forgetAllUnsafe() REQUIRES(m_mutex);

    const std::string m_device;
    Mutex m_mutex;
    std::map<KelmGraph*, TevoGraphInfo> m_cachedGraphs GUARDED_BY(m_mutex);
    std::vector<TevoHandles> m_forgotten GUARDED_BY(m_mutex);
    bool m_closed GUARDED_BY(m_mutex) = false;
};

}  // namespace kelm
