#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <variant>
#include <vector>

#include "kelm/kelm.h"
#include "utils/Mutex.h"
#include "utils/UniqueFd.h"

namespace kelm::lib {

// The end of a task as the program is told it.
struct TaskEnd {
    kelm_result result;
    std::string text;  // of the error
    kelm_done_fn done;
    void* user;
};

// The connection was lost, or is there again.
struct ConnectionChange {
    void (*callback)(int up, void* user);
    void* user;
    bool up;
};

// Runs the program's callbacks: at once, or in dispatch mode when the program asks for those that
// are due.
//
// Threads: any; dispatch() one at a time. Locks: m_mutex, a leaf; not held in a callback.
class Callbacks {
 public:
    using Callback = std::variant<TaskEnd, ConnectionChange>;

    // Raises std::runtime_error if dispatch mode cannot have its descriptor.
    explicit Callbacks(bool dispatchMode);

    void run(Callback callback) EXCLUDES(m_mutex);
    // At once in every mode. A callback that throws ends the program: the frames below are not its
    // own.
    static void runNow(Callback& callback) noexcept;
    static void runInside(const std::function<void()>& callback) noexcept;
    // In dispatch mode those that are due. How many ran.
    int runWaiting() EXCLUDES(m_mutex);
    // The same; waits up to `timeoutMillis`, negative: without limit. -1 with errno.
    int dispatch(int timeoutMillis) EXCLUDES(m_mutex);
    // -1 without dispatch mode.
    int fd() const { return m_due.get(); }
    // Whether the calling thread is in one: then it must not wait for another.
    static bool isInside();

 private:
    const UniqueFd m_due;  // readable while callbacks wait
    Mutex m_mutex;
    std::vector<Callback> m_waiting GUARDED_BY(m_mutex);
};

}  // namespace kelm::lib
