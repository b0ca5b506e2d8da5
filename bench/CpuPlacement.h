#pragma once

#include <sched.h>

#include <stdexcept>

#include "utils/NonCopyable.h"

namespace kelm::bench {

enum class Cpus { kOne, kAll };

// Where this thread and the processes that it starts may run, for a scope.
class CpuPlacement : public NonCopyable {
 public:
    explicit CpuPlacement(Cpus cpus) {
        if (::sched_getaffinity(0, sizeof(m_before), &m_before) != 0) fail();
        if (cpus == Cpus::kOne) placeOnFirst();
    }
    ~CpuPlacement() { ::sched_setaffinity(0, sizeof(m_before), &m_before); }

    static int available() {
        cpu_set_t set;
        return ::sched_getaffinity(0, sizeof(set), &set) == 0 ? CPU_COUNT(&set) : 1;
    }

 private:
    [[noreturn]] static void fail() { throw std::runtime_error("cannot place this process"); }
    void placeOnFirst() {
        size_t first = 0;
        while (!CPU_ISSET(first, &m_before)) ++first;
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(first, &set);
        if (::sched_setaffinity(0, sizeof(set), &set) != 0) fail();
    }

    cpu_set_t m_before;
};

}  // namespace kelm::bench
