#include "scheduling/tasks/WaitingShares.h"

namespace kelm {

void WaitingShares::add(uint64_t clientId) {
    if (uint64_t* const count = m_counts.find(clientId)) {
        ++*count;
    } else {
        m_counts.insert(clientId, 1);
    }
}

void WaitingShares::remove(uint64_t clientId) {
    uint64_t* const count = m_counts.find(clientId);
    if (--*count == 0) m_counts.erase(clientId);
}

// A share below one whole task is none. So not more than `limit` clients have one at a time, and
// what waits has a bound however many clients come and go: if all fill their shares as soon as they
// have one, and nothing is served meanwhile, n clients have limit * (1 + 1/2 + ... + 1/n) tasks.
bool WaitingShares::isBelowShare(uint64_t clientId, uint64_t limit) const {
    const uint64_t* const count = m_counts.find(clientId);
    const uint64_t clients = m_counts.size() + (count != nullptr ? 0 : 1);
    return (count != nullptr ? *count : 0) < limit / clients;
}

}  // namespace kelm
