#pragma once

#include "utils/Mutex.h"

namespace kelm {

// What a fake was told, in order; calling it reads all so far. Any thread.
template <class T>
class Recorded {
 public:
    template <class... Parts>
    void add(Parts&&... parts) {
        MutexLock lock(m_mutex);
        m_records.emplace_back(std::forward<Parts>(parts)...);
    }
    std::vector<T> operator()() const {
        MutexLock lock(m_mutex);
        return m_records;
    }

 private:
    mutable Mutex m_mutex;
    std::vector<T> m_records GUARDED_BY(m_mutex);
};

}  // namespace kelm
