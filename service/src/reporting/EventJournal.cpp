#include "reporting/EventJournal.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <iterator>

#include "utils/Log.h"

namespace kelm {

namespace {

// In the order of the kinds. All others together leave most of a reading to the placements.
constexpr size_t kKept[] = {EventJournal::kMostRead, 100, 100, 100, 100};
static_assert(std::size(kKept) == kEventKinds);

}  // namespace

void EventJournal::record(const ServiceEvent& event) {
    const auto kind = static_cast<size_t>(kindOf(event.action));
    {
        MutexLock lock(m_mutex);
        std::deque<ServiceEvent>& events = m_events[kind];
        if (events.size() >= kKept[kind]) events.pop_front();
        ServiceEvent& kept = events.emplace_back(event);
        // Read under the mutex: the numbers are in the order of the times.
        kept.sequence = m_next++;
        kept.wall = std::chrono::system_clock::now();
        kept.monotonic = std::chrono::steady_clock::now();
        if (isMove(event.action)) ++m_moves[static_cast<size_t>(event.reason)];
        // Under the mutex, which keeps the descriptor open; the call never blocks.
        if (m_watcher >= 0) (void)::eventfd_write(m_watcher, 1);
    }
    if (m_logs) LOG_INFO("event: %s", toText(event));
}

EventJournal::Extract EventJournal::read(uint64_t from) {
    Extract extract;
    {
        MutexLock lock(m_mutex);
        extract.next = m_next;
        extract.moves = m_moves;
        if (from >= m_next) return extract;
        for (const std::deque<ServiceEvent>& events : m_events) {
            const auto first = std::ranges::lower_bound(events, from, {}, &ServiceEvent::sequence);
            extract.events.insert(extract.events.end(), first, events.end());
        }
    }
    std::ranges::sort(extract.events, {}, &ServiceEvent::sequence);
    if (extract.events.size() > kMostRead) {
        extract.events.erase(extract.events.begin(), extract.events.end() - kMostRead);
    }
    return extract;
}

void EventJournal::setWatcher(int fd) {
    MutexLock lock(m_mutex);
    m_watcher = fd;
}

}  // namespace kelm
