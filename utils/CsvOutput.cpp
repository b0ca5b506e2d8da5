#include "utils/CsvOutput.h"

#include <utility>

#include "utils/Log.h"

namespace kelm {

namespace {

constexpr size_t kFull = 0xFFFFF;
// What may gather while the disk is slow, and what a buffer may keep for itself afterwards.
constexpr size_t kMaxText = 128 * (kFull + 1);
constexpr size_t kMaxSpare = 4 * (kFull + 1);

}  // namespace

CsvOutput::CsvOutput(std::string path, std::string_view header)
    : m_filling(header), m_file(std::move(path)) {}

bool CsvOutput::append(std::string_view head, std::string_view tail) {
    MutexLock lock(m_mutex);
    const size_t before = m_filling.size();
    if (before + head.size() + tail.size() > kMaxText) {
        ++m_dropped;
        return false;
    }
    m_filling.append(head).append(tail);
    return before <= kFull && m_filling.size() > kFull;
}

void CsvOutput::save() {
    uint64_t dropped = 0;
    {
        MutexLock lock(m_mutex);
        m_filling.swap(m_saving);
        dropped = std::exchange(m_dropped, 0);
    }
    if (!m_saving.empty()) (void)m_file.append(m_saving);  // it logs a failure; the text is lost
    if (dropped != 0) {
        LOG_ERROR("Error: %lu lines for %s came faster than it can be written", dropped,
                  m_file.getPath());
    }
    m_saving.clear();
    if (m_saving.capacity() > kMaxSpare) m_saving.shrink_to_fit();
}

}  // namespace kelm
