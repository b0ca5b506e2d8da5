#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "config/ServiceConfigParser.h"
#include "protocol/src/InfoPackage.h"
#include "reporting/InfoCollector.h"
#include "reporting/MemoryInspector.h"
#include "utils/CommonHelper.h"
#include "utils/Log.h"
#include "utils/Port.h"

namespace kelm {

namespace {

constexpr int kKilobyteShift = 10;

struct CloseFile {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

// The value of a line of "/proc/meminfo" in bytes; 0 without such a line.
long getMemorySize(const std::string& label) {
    std::ifstream file("/proc/meminfo");
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with(label + ":")) continue;
        return std::strtol(line.c_str() + label.size() + 1, nullptr, 10) << kKilobyteShift;
    }
    return 0;
}

}  // namespace

// The machine's memory does not change, so it is read once.
MemoryInspector::MemoryInspector()
    : m_totalMemory(getMemorySize("MemTotal")), m_pageSize(::sysconf(_SC_PAGESIZE)) {
    if (ServiceConfigParser::instance().isPrintMemoryUsageEnabled()) {
        Port<InfoCollector>::notify<&InfoCollector::registerListener>(this);
    }
}

// Also if it was never registered: the printer ignores an unknown listener.
MemoryInspector::~MemoryInspector() {
    Port<InfoCollector>::notify<&InfoCollector::unregisterListener>(this);
}

// The kernel counts pages here, and kilobytes in getrusage().
bool MemoryInspector::getProcessMemory(long& virt, long& res, long& shr) const {
    const File file(std::fopen("/proc/self/statm", "re"));
    if (!file) {
        LOG_ERROR("Error: cannot open file '/proc/self/statm'");
        return false;
    }
    if (std::fscanf(file.get(), "%ld %ld %ld", &virt, &res, &shr) != 3) {
        LOG_ERROR("Error: cannot read file '/proc/self/statm'");
        return false;
    }
    for (long* pages : {&virt, &res, &shr}) *pages *= m_pageSize;
    return true;
}

long MemoryInspector::getPeakRSS() {
    rusage usage = {};
    if (::getrusage(RUSAGE_SELF, &usage) != 0) return 0;
    return usage.ru_maxrss << kKilobyteShift;
}

// Without a reading the fields keep what they had before.
void MemoryInspector::updateInfoPackage(InfoPackage* package) const {
    long virt = 0;
    long res = 0;
    long shr = 0;
    if (!getProcessMemory(virt, res, shr)) return;
    package->memVirtMB = virt >> kMegabyteShift;
    package->memResMB = res >> kMegabyteShift;
    package->memShrMB = shr >> kMegabyteShift;
    package->memTotalMB = m_totalMemory >> kMegabyteShift;
}

void MemoryInspector::onPrintInfo() {
    long virt = 0;
    long res = 0;
    long shr = 0;
    if (!getProcessMemory(virt, res, shr)) return;
    LOG_INFO("Service Memory Status (KB): VIRT = %ld, RES = %ld, SHR = %ld, TOTAL = %ld",
             virt >> kKilobyteShift, res >> kKilobyteShift, shr >> kKilobyteShift,
             m_totalMemory >> kKilobyteShift);
}

}  // namespace kelm
