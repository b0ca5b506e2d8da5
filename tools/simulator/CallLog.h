#pragma once

#include <atomic>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm::simulator {

// The calls of the accelerator library, for a program that has the library within itself. Without a
// log nothing is noted: a service that runs for weeks would fill its memory.
//
// Threads: any, but for its making and its end. Locks: m_mutex is a leaf.
class CallLog : public NonCopyable {
 public:
    CallLog();
    ~CallLog();

    // A call's name is that of the function, followed by the option, or the size that it sets.
    static void note(const std::string& name);
    static bool isOn();

    int count(const std::string& name) EXCLUDES(m_mutex);
    // The names since the last question, in order.
    std::vector<std::string> take() EXCLUDES(m_mutex);

 private:
    Mutex m_mutex;
    std::vector<std::string> m_calls GUARDED_BY(m_mutex);
    std::map<std::string, int> m_counts GUARDED_BY(m_mutex);
};

// Counts the handles of the library that exist. A base class of theirs.
struct CountedHandle {
    CountedHandle() { ++live; }
    CountedHandle(const CountedHandle&) = delete;
    CountedHandle& operator=(const CountedHandle&) = delete;
    ~CountedHandle() { --live; }

    static inline std::atomic<int> live{0};  // atomic: any thread makes handles
};

}  // namespace kelm::simulator
