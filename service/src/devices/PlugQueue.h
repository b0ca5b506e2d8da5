#pragma once

#include <deque>
#include <map>
#include <string>

#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {

class BoundedThreads;
class WorkerRegistry;

// The plug events of one device manager. Those of one device are handled one after the other, in
// their order, so that a late removal cannot take the worker that the following event has built;
// devices do not wait for each other.
//
// Threads: any; a device with events has a thread, which ends with the last of them.
// Owns: the events. Borrows the registry and the threads, which outlive it.
// Locks: m_mutex, then that of the threads; not held while an event is handled.
class PlugQueue : public NonCopyable {
 public:
    enum Event { PLUG_IN, PLUG_OUT };

    PlugQueue(WorkerRegistry& workers, BoundedThreads& threads)
        : m_workers(workers), m_threads(threads) {}

    // Never waits for a device. An event that repeats the one before is dropped: that is being
    // done or will be, and would be done twice.
    void enqueue(const std::string& device, Event event) EXCLUDES(m_mutex);
    // Drops what waits and what comes; an event that is being handled is not cut short.
    void close() EXCLUDES(m_mutex);

 private:
    void handleEvents(const std::string& device) EXCLUDES(m_mutex);
    void handleEvent(const std::string& device, Event event) EXCLUDES(m_mutex);

    WorkerRegistry& m_workers;
    BoundedThreads& m_threads;
    Mutex m_mutex;
    bool m_closed GUARDED_BY(m_mutex) = false;
    // By device, the events not yet done, the first of them being handled; never an empty queue.
    std::map<std::string, std::deque<Event>> m_events GUARDED_BY(m_mutex);
};

}  // namespace kelm
