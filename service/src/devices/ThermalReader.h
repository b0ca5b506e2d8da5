#pragma once

#include <chrono>
#include <string>

#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {

class BoundedThreads;
class WorkerRegistry;

// Reads the temperatures of idle devices at intervals; a busy one is read with its results.
//
// Threads: one of its own, from start() on; it waits for devices, one after the other.
// Borrows the registry and the threads, which outlive it.
// Locks: m_mutex is a leaf, and free while a device is read.
class ThermalReader : public NonCopyable {
 public:
    ThermalReader(WorkerRegistry& workers, BoundedThreads& threads)
        : m_workers(workers), m_threads(threads) {}

    // Reads at once, and then `interval` after the end of each pass.
    void start(const std::string& threadName, std::chrono::milliseconds interval);
    // The thread ends after the reading that is under way; does not wait for it.
    void close() EXCLUDES(m_mutex);

 private:
    void deviceThermalUpdateRoutine(std::chrono::milliseconds interval) EXCLUDES(m_mutex);
    void updateThermals();

    WorkerRegistry& m_workers;
    BoundedThreads& m_threads;
    Mutex m_mutex;
    CondVar m_closing;
    bool m_closed GUARDED_BY(m_mutex) = false;
};

}  // namespace kelm
