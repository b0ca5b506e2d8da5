#include "tools/kelmctl/EventFollower.h"

#include <exception>
#include <utility>

namespace kelm::ctl {

const std::optional<EventHistory>& EventFollower::look(client::Deadline deadline) {
    try {
        if (!m_reader || !takeNew()) begin(deadline);
    } catch (const std::exception&) {  // the stream is none that this program knows
        drop();
    }
    return m_history;
}

void EventFollower::drop() {
    m_reader = nullptr;
    m_history.reset();
}

void EventFollower::begin(client::Deadline deadline) {
    drop();
    auto connected = client::EventReader::connect({}, deadline);
    if (!connected) return;
    auto history = readHistory(*connected.value(), m_count, deadline);
    if (!history) return;
    m_reader = std::move(connected.value());
    m_history = std::move(history.value());
    // What came between the greeting and the old ones is among them, and not counted yet.
    for (const EventRow& event : std::exchange(m_history->events, {})) add(event);
}

bool EventFollower::takeNew() {
    while (true) {
        const auto line = m_reader->read(client::Deadline(0));
        if (!line) return line.error().kind() == client::ErrorKind::kTimeout;
        if (!add(parseEvent(line.value()))) return false;
    }
}

bool EventFollower::add(EventRow event) {
    EventHistory& history = *m_history;
    if (event.sequence >= history.next) {
        if (event.isMove()) ++history.moves[event.reason];
        history.next = event.sequence + 1;
    }
    const bool isWhole = event.kind != "gap";
    history.events.push_back(std::move(event));
    if (history.events.size() > m_count) history.events.erase(history.events.begin());
    return isWhole;
}

}  // namespace kelm::ctl
