#include "bench/CallCountsFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>

#include "utils/UniqueFd.h"

namespace kelm::bench {

CallCountsFile::CallCountsFile() : m_path(m_dir.path() + "/counts") {
    const UniqueFd file(::open(m_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!file || ::ftruncate(file.get(), sizeof(CallCounts)) != 0) {
        throw std::runtime_error("cannot make " + m_path);
    }
    void* const memory =
        ::mmap(nullptr, sizeof(CallCounts), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (memory == MAP_FAILED) throw std::runtime_error("cannot map " + m_path);
    m_counts = static_cast<CallCounts*>(memory);
}

CallCountsFile::~CallCountsFile() { ::munmap(m_counts, sizeof(CallCounts)); }

std::vector<std::string> CallCountsFile::environment() const {
    return {"LD_PRELOAD=" KELM_CALL_COUNTER, std::string(kCallCountsVariable) + "=" + m_path};
}

CallSums CallCountsFile::sum() const {
    CallSums sums;
    for (const CallCounts::Slot& slot : m_counts->slots) {
        sums.mutexLocks += static_cast<double>(slot.mutexLocks);
        sums.allocations += static_cast<double>(slot.allocations);
    }
    return sums;
}

}  // namespace kelm::bench
