#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "utils/Futex.h"

namespace kelm::futex {

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t));

void wait(const std::atomic<uint32_t>& word, uint32_t value) {
    (void)::syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, value, nullptr);
}

void wakeOne(const std::atomic<uint32_t>& word) {
    (void)::syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1);
}

}  // namespace kelm::futex
