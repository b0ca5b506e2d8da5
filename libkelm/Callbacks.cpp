#include "libkelm/Callbacks.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <stdexcept>
#include <utility>

namespace kelm::lib {

namespace {

thread_local int t_depth = 0;

struct Runner {
    void operator()(TaskEnd& end) const {
        end.result.text = end.text.c_str();
        end.done(&end.result, end.user);
    }
    void operator()(ConnectionChange& change) const { change.callback(change.up, change.user); }
};

UniqueFd makeEvent(bool wanted) {
    UniqueFd event(wanted ? ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK) : -1);
    if (wanted && !event) {
        throw std::runtime_error(
            "no descriptor for callbacks is left; raise the limit of open files");
    }
    return event;
}

}  // namespace

Callbacks::Callbacks(bool dispatchMode) : m_due(makeEvent(dispatchMode)) {}

bool Callbacks::isInside() { return t_depth != 0; }

void Callbacks::runNow(Callback& callback) noexcept {
    ++t_depth;
    std::visit(Runner(), callback);
    --t_depth;
}

void Callbacks::runInside(const std::function<void()>& callback) noexcept {
    ++t_depth;
    callback();
    --t_depth;
}

void Callbacks::run(Callback callback) {
    if (!m_due) return runNow(callback);
    MutexLock lock(m_mutex);
    m_waiting.push_back(std::move(callback));
    // The first one only: each wake-up is a system call.
    if (m_waiting.size() == 1) (void)::eventfd_write(m_due.get(), 1);
}

int Callbacks::runWaiting() {
    std::vector<Callback> callbacks;
    {
        MutexLock lock(m_mutex);
        eventfd_t count = 0;
        if (m_due) (void)::eventfd_read(m_due.get(), &count);
        callbacks.swap(m_waiting);
    }
    for (Callback& callback : callbacks) runNow(callback);
    return static_cast<int>(callbacks.size());
}

int Callbacks::dispatch(int timeoutMillis) {
    pollfd due{m_due.get(), POLLIN, 0};
    return ::poll(&due, 1, timeoutMillis) < 0 ? -1 : runWaiting();
}

}  // namespace kelm::lib
