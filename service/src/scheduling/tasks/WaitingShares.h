#pragma once

#include <cstdint>

#include "utils/RecycledMap.h"

namespace kelm {

// How many tasks of each client wait, and what is an equal share of a limit on all of them: as many
// whole tasks as each of the clients that have tasks waiting could have at once.
//
// Not thread-safe: the task scheduler guards it with its mutex.
class WaitingShares {
 public:
    void add(uint64_t clientId);
    // Of a task that was added.
    void remove(uint64_t clientId);
    // Whether one more task leaves the client, which counts even if none of its tasks waits, within
    // its share.
    bool isBelowShare(uint64_t clientId, uint64_t limit) const;

 private:
    RecycledMap<uint64_t, uint64_t> m_counts;  // by client id; none is 0
};

}  // namespace kelm
