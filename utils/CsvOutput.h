#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "utils/AppendOnlyFile.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {

// One trace file behind two buffers: callers fill one while the other is saved. What cannot be
// saved is dropped, so a full or slow disk costs rows and neither time nor memory.
//
// Threads: any for append(), one at a time for save(). Locks: m_mutex is a leaf.
class CsvOutput : public NonCopyable {
 public:
    CsvOutput(std::string path, std::string_view header);

    // Adds a line given as two pieces. True when that filled the buffer: it should be saved soon.
    bool append(std::string_view head, std::string_view tail) EXCLUDES(m_mutex);
    // Writes what has gathered to the file.
    void save() EXCLUDES(m_mutex);

 private:
    Mutex m_mutex;
    std::string m_filling GUARDED_BY(m_mutex);
    uint64_t m_dropped GUARDED_BY(m_mutex) = 0;  // lines since the last save
    // The saving thread's. Empty between two saves.
    std::string m_saving;
    AppendOnlyFile m_file;
};

}  // namespace kelm
