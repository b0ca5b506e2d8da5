#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "reporting/EventListener.h"
#include "reporting/ServiceEvent.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {

// The last events of each kind, and how many there were. Bounded by kind: what clients bring about
// as often as they like does not push out the decisions of the schedulers.
//
// Threads: any. Locks: m_mutex is a leaf.
class EventJournal final : public NonCopyable, public EventListener {
 public:
    static constexpr size_t kMostRead = 1000;  // of all kinds together, at once
    static constexpr uint64_t kNoEvents = UINT64_MAX;

    // At one moment.
    struct Extract {
        std::vector<ServiceEvent> events;  // in their order
        uint64_t next = 0;                 // the number that the next event will have
        std::array<uint64_t, kPlacementReasons> moves{};  // by reason, since the start
    };

    // With `logs`, each event is a line of the log as well.
    explicit EventJournal(bool logs) : m_logs(logs) {}

    void record(const ServiceEvent& event) override EXCLUDES(m_mutex);
    // The newest of the events from this number on.
    Extract read(uint64_t from) EXCLUDES(m_mutex);
    // An event descriptor that is told of each event, or -1; borrowed until another one is set.
    void setWatcher(int fd) EXCLUDES(m_mutex);

 private:
    const bool m_logs;
    Mutex m_mutex;
    std::array<std::deque<ServiceEvent>, kEventKinds> m_events GUARDED_BY(m_mutex);
    std::array<uint64_t, kPlacementReasons> m_moves GUARDED_BY(m_mutex){};
    uint64_t m_next GUARDED_BY(m_mutex) = 1;
    int m_watcher GUARDED_BY(m_mutex) = -1;
};

}  // namespace kelm
