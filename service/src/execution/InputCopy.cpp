#include "execution/InputCopy.h"

#include <cstdlib>
#include <cstring>

namespace kelm {

bool InputCopy::take(const char* data, size_t bytes) {
    if (bytes > m_size) {
        m_memory.reset();  // first, so that never both are there
        m_memory.reset(static_cast<char*>(std::malloc(bytes)));
        m_size = m_memory ? bytes : 0;
        if (!m_memory) return false;
    }
    if (bytes > 0) std::memcpy(m_memory.get(), data, bytes);
    asm volatile("" : : "r"(m_memory.get()) : "memory");  // or the compiler drops the copy
    if (m_size > kMostKept) {
        m_memory.reset();
        m_size = 0;
    }
    return true;
}

}  // namespace kelm
