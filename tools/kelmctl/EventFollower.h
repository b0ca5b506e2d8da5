#pragma once

#include <cstddef>
#include <memory>
#include <optional>

#include "tools/kelmctl/EventHistory.h"

namespace kelm::ctl {

// The history as it goes on, over one connection for all looks. Where that is lost, or some events
// are, it begins anew.
//
// Threads: one. Owns: the connection.
class EventFollower {
 public:
    // Keeps up to so many of the last events.
    explicit EventFollower(size_t count) : m_count(count) {}

    // None from a service that does not tell, or tells in another version.
    const std::optional<EventHistory>& look(client::Deadline deadline);
    void drop();

 private:
    void begin(client::Deadline deadline);
    // Whether the history goes on.
    bool takeNew();
    bool add(EventRow event);

    const size_t m_count;
    std::unique_ptr<client::EventReader> m_reader;  // null: not connected
    std::optional<EventHistory> m_history;          // there while connected
};

}  // namespace kelm::ctl
