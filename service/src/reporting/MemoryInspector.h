#pragma once

#include "reporting/PrintInfoListener.h"
#include "utils/Singleton.h"

namespace kelm {

struct InfoPackage;

// The memory figures of this process and of the machine. Prints them at intervals if the
// configuration asks for it.
//
// Threads: any; nothing changes after construction.
class MemoryInspector final : public Singleton<MemoryInspector>, public PrintInfoListener {
 public:
    MemoryInspector();
    ~MemoryInspector() override;

    // Virtual, resident and shared size in bytes; false, with an ERROR line, if they cannot be
    // read.
    bool getProcessMemory(long& virt, long& res, long& shr) const;
    // The largest resident size so far, in bytes.
    static long getPeakRSS();

    // Writes the memory figures; leaves them alone if they cannot be read.
    void updateInfoPackage(InfoPackage* package) const;
    void onPrintInfo() override;

 private:
    const long m_totalMemory;  // bytes of the machine; 0 if unknown
    const long m_pageSize;
};

}  // namespace kelm
