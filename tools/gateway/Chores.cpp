#include "tools/gateway/Chores.h"

namespace kelm::gateway {

Chores::Chores() : m_thread([this] { run(); }) {}

Chores::~Chores() {
    {
        MutexLock lock(m_mutex);
        m_isEnding = true;
    }
    m_changed.notifyAll();
    m_thread.join();
}

void Chores::owe() {
    MutexLock lock(m_mutex);
    ++m_owed;
}

void Chores::put(std::function<void()> chore, size_t paid) {
    {
        MutexLock lock(m_mutex);
        m_owed -= paid;
        m_waiting.push_back(std::move(chore));
    }
    m_changed.notifyAll();
}

void Chores::run() {
    MutexLock lock(m_mutex);
    while (true) {
        while (m_waiting.empty() && (!m_isEnding || m_owed > 0)) m_changed.wait(m_mutex);
        if (m_waiting.empty()) return;
        std::function<void()> chore = std::move(m_waiting.front());
        m_waiting.pop_front();
        lock.unlock();
        chore();
        chore = nullptr;  // what it holds may add a chore as it ends
        lock.lock();
    }
}

}  // namespace kelm::gateway
