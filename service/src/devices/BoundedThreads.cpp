#include "devices/BoundedThreads.h"

#include <algorithm>
#include <system_error>
#include <thread>
#include <utility>

#include "utils/Log.h"

namespace kelm {

bool BoundedThreads::start(InlineTask body) {
    {
        // Before the thread exists, so that a wait that begins now waits for it too.
        MutexLock lock(m_mutex);
        ++m_count;
    }
    try {
        // Detached, as the body may never return; a wait looks at m_count instead.
        std::thread([this, body = std::move(body)]() mutable {
            body();
            body.reset();  // what it captured ends within the time that is waited for
            end();
        }).detach();
        return true;
    } catch (const std::system_error& error) {
        LOG_ERROR("Error: device manager(%s) has no thread: %s", m_owner, error.what());
        end();
        return false;
    }
}

// The last step of a thread: this object may be destroyed as soon as the mutex is free.
void BoundedThreads::end() {
    MutexLock lock(m_mutex);
    --m_count;
    m_ended.notifyAll();
}

bool BoundedThreads::waitEnd(Deadline deadline) {
    MutexLock lock(m_mutex);
    bool timely = true;
    while (m_count > 0 && timely) timely = m_ended.waitUntil(m_mutex, deadline);
    return m_count == 0;
}

}  // namespace kelm
