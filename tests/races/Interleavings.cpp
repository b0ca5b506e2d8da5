#include "races/Interleavings.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <cstdlib>
#include <semaphore>
#include <string>
#include <thread>

namespace kelm {
namespace {

int realLock(pthread_mutex_t* mutex) {
    static const auto real =
        reinterpret_cast<int (*)(pthread_mutex_t*)>(::dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    return real(mutex);
}
int realUnlock(pthread_mutex_t* mutex) {
    static const auto real =
        reinterpret_cast<int (*)(pthread_mutex_t*)>(::dlsym(RTLD_NEXT, "pthread_mutex_unlock"));
    return real(mutex);
}

// The threads of one run. Only the one that has the turn touches this.
class Turns {
 public:
    explicit Turns(Interleavings& orders, size_t count) : m_orders(orders), m_threads(count) {}

    void run(const std::vector<std::function<void()>>& bodies) {
        std::vector<std::thread> threads;
        for (size_t i = 0; i < bodies.size(); ++i) {
            threads.emplace_back([this, i, &body = bodies[i]] {
                m_threads[i].turn.acquire();
                t_turns = this;
                t_index = i;
                body();
                t_turns = nullptr;
                m_threads[i].ended = true;
                passOn();
            });
        }
        passOn();
        for (std::thread& thread : threads) thread.join();
    }

    // The running thread might be held up here.
    void point(const void* mutex) {
        if (!m_orders.isWatched(mutex)) return;
        passTurn();
    }
    // What it waits for is held by a thread that is held up, or by one that runs freely.
    void waitFor(pthread_mutex_t* mutex) {
        m_threads[t_index].waitsFor = mutex;
        if (std::ranges::none_of(m_threads, [](const Thread& t) { return t.canRun(); })) {
            m_threads[t_index].waitsFor = nullptr;
            ::sched_yield();
            return;
        }
        passTurn();
        m_threads[t_index].waitsFor = nullptr;
    }
    void noteUnlocked(pthread_mutex_t* mutex) {
        for (Thread& thread : m_threads) {
            if (thread.waitsFor == mutex) thread.waitsFor = nullptr;
        }
    }

    static thread_local Turns* t_turns;  // null for threads that run freely

 private:
    struct Thread {
        std::binary_semaphore turn{0};
        bool ended = false;
        pthread_mutex_t* waitsFor = nullptr;

        bool canRun() const { return !ended && waitsFor == nullptr; }
    };

    void passTurn() {
        const size_t self = t_index;
        const size_t next = pick(self);
        if (next == self) return;
        m_threads[next].turn.release();
        m_threads[self].turn.acquire();
    }
    // Of a thread that cannot go on, or has not begun: the next one; of another perhaps itself.
    size_t pick(size_t self) {
        std::vector<size_t> options;
        const bool goesOn = self < m_threads.size() && m_threads[self].canRun();
        if (goesOn) options.push_back(self);
        for (size_t i = 0; i < m_threads.size(); ++i) {
            if (i != self && m_threads[i].canRun()) options.push_back(i);
        }
        return options.size() < 2 ? options.at(0)
                                  : options[m_orders.choose(options.size(), !goesOn)];
    }
    void passOn() {
        // What is left may wait for mutexes of threads that run freely.
        for (Thread& thread : m_threads) {
            if (std::ranges::any_of(m_threads, [](const Thread& t) { return t.canRun(); })) break;
            thread.waitsFor = nullptr;
        }
        if (std::ranges::any_of(m_threads, [](const Thread& t) { return t.canRun(); })) {
            m_threads[pick(m_threads.size())].turn.release();
        }
    }

    Interleavings& m_orders;
    std::vector<Thread> m_threads;
    static thread_local size_t t_index;
};

thread_local Turns* Turns::t_turns = nullptr;
thread_local size_t Turns::t_index = 0;

}  // namespace

size_t Interleavings::wantedPreemptions() {
    const char* const wanted = ::getenv("KELM_RACES");
    return wanted != nullptr ? std::stoul(wanted) : 1;
}

bool Interleavings::runNext(const std::vector<std::function<void()>>& bodies) {
    if (m_runs > 0 && !advance()) return false;
    ++m_runs;
    m_depth = 0;
    m_used = 0;
    Turns(*this, bodies.size()).run(bodies);
    return true;
}

bool Interleavings::isWatched(const void* mutex) const {
    const auto* const at = static_cast<const std::byte*>(mutex);
    return m_watched.empty() || std::ranges::any_of(m_watched, [at](const auto& object) {
               return std::less_equal<>()(object.data(), at) &&
                      std::less<>()(at, object.data() + object.size());
           });
}

size_t Interleavings::choose(size_t options, bool isFree) {
    if (m_depth == m_path.size()) {
        m_path.push_back({0, isFree || m_used < m_preemptions ? options : 1, isFree});
    }
    const Decision& decision = m_path[m_depth++];
    if (decision.chosen > 0 && !decision.isFree) ++m_used;
    return std::min(decision.chosen, options - 1);
}

bool Interleavings::advance() {
    while (!m_path.empty() && m_path.back().chosen + 1 >= m_path.back().options) m_path.pop_back();
    if (m_path.empty()) return false;
    ++m_path.back().chosen;
    return true;
}

}  // namespace kelm

// In place of the C library's for the whole program.
extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    using kelm::Turns;
    Turns* const turns = Turns::t_turns;
    if (turns == nullptr) return kelm::realLock(mutex);
    turns->point(mutex);
    int error = 0;
    while ((error = ::pthread_mutex_trylock(mutex)) == EBUSY) turns->waitFor(mutex);
    return error;
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    using kelm::Turns;
    const int error = kelm::realUnlock(mutex);
    if (Turns* const turns = Turns::t_turns) {
        turns->noteUnlocked(mutex);
        turns->point(mutex);
    }
    return error;
}
