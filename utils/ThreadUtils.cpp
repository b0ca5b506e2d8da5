#include "utils/ThreadUtils.h"

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#if defined(__x86_64__)
#include <x86intrin.h>
#else
#include <ctime>
#endif

#include <array>
#include <cstdio>

#include "utils/Mutex.h"
#include "utils/PlainFile.h"

namespace {
constexpr unsigned long kThreadNameSize = 16;

thread_local int t_id = 0;
}  // namespace

int ThreadUtils::getProcessId() { return ::getpid(); }

int ThreadUtils::getThreadId() {
    // Kept, since every line of the log asks for it and asking is a system call.
    if (t_id == 0) t_id = static_cast<int>(::syscall(SYS_gettid));
    return t_id;
}

ThreadUtils::BorrowedId::BorrowedId(int threadId) : m_before(getThreadId()) { t_id = threadId; }
ThreadUtils::BorrowedId::~BorrowedId() { t_id = m_before; }

void ThreadUtils::setName(const std::string& name) { ::prctl(PR_SET_NAME, name.c_str(), 0, 0, 0); }

std::string ThreadUtils::getName() {
    std::array<char, kThreadNameSize> buffer{};
    getName(buffer.data(), buffer.size());
    return buffer.data();
}

void ThreadUtils::getName(char* buffer, unsigned long size) {
    // The kernel writes 16 bytes whatever the buffer's size.
    if (buffer == nullptr || size < kThreadNameSize) return;
    ::prctl(PR_GET_NAME, buffer, 0, 0, 0);
}

// Elsewhere nanoseconds stand in, which look like a counter of 1,000 MHz.
uint64_t ThreadUtils::getRdtsc() {
#if defined(__x86_64__)
    return __rdtsc();
#else
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
#endif
}

std::string ThreadUtils::getHostname() {
    std::array<char, 128> buffer{};
    if (::gethostname(buffer.data(), buffer.size() - 1) != 0) return {};
    return buffer.data();
}

// One mutex for the process: the numbers of the lines follow their order in the file.
void ThreadUtils::saveThreadInfo(const std::string& name) {
    static kelm::Mutex mutex;
    static unsigned long counter = 0;
    kelm::MutexLock lock(mutex);
    constexpr int kFlags = O_WRONLY | O_CLOEXEC;
    const kelm::UniqueFd file =
        kelm::PlainFile::open("thread.info", kFlags | (counter == 0 ? O_TRUNC : O_APPEND), 0644,
                              kelm::PlainFile::Owner::THIS_USER);
    // For people only: a full disk costs the line. Without memory of its own, since an exception at
    // the start of a thread would end the process.
    if (file) {
        (void)::dprintf(file.get(), "[%lu] threadId=%d threadName=%s\n", counter, getThreadId(),
                        name.c_str());
    }
    ++counter;
}
