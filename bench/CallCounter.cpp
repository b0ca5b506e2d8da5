// Counts the mutex locks and allocations of the program that preloads it, and of the processes that
// the program forks, into the file of CallCounts.h.

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "bench/CallCounts.h"

using kelm::bench::CallCounts;

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

CallCounts* counts = nullptr;
// Initial-exec, since any other model allocates at a thread's first access.
[[gnu::tls_model("initial-exec")]] thread_local CallCounts::Slot* slot = nullptr;

[[gnu::constructor]] void openCounts() {
    const char* const path = std::getenv(kelm::bench::kCallCountsVariable);
    const int fd = path != nullptr ? ::open(path, O_RDWR | O_CLOEXEC) : -1;
    if (fd < 0) return;
    void* const memory =
        ::mmap(nullptr, sizeof(CallCounts), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (memory != MAP_FAILED) counts = static_cast<CallCounts*>(memory);
}

void count(std::atomic<uint64_t> CallCounts::Slot::*calls) {
    if (counts == nullptr) return;
    if (slot == nullptr) slot = &counts->slots[counts->threads++ % CallCounts::kSlots];
    (slot->*calls).fetch_add(1, std::memory_order_relaxed);
}

using LockFunction = int (*)(pthread_mutex_t*);

// Looked up at the first use, which may come before this library's constructor.
int callReal(std::atomic<LockFunction>& real, const char* name, pthread_mutex_t* mutex) {
    LockFunction function = real.load(std::memory_order_relaxed);
    if (function == nullptr) {
        function = reinterpret_cast<LockFunction>(::dlsym(RTLD_NEXT, name));
        real.store(function, std::memory_order_relaxed);
    }
    return function(mutex);
}

std::atomic<LockFunction> realLock{nullptr};
std::atomic<LockFunction> realTryLock{nullptr};

}  // namespace

extern "C" {

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    count(&CallCounts::Slot::mutexLocks);
    return callReal(realLock, "pthread_mutex_lock", mutex);
}
int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
    const int status = callReal(realTryLock, "pthread_mutex_trylock", mutex);
    if (status == 0) count(&CallCounts::Slot::mutexLocks);
    return status;
}

void* malloc(size_t size) noexcept {
    count(&CallCounts::Slot::allocations);
    return __libc_malloc(size);
}
void* calloc(size_t number, size_t size) noexcept {
    count(&CallCounts::Slot::allocations);
    return __libc_calloc(number, size);
}
void* realloc(void* memory, size_t size) noexcept {
    count(&CallCounts::Slot::allocations);
    return __libc_realloc(memory, size);
}
void* aligned_alloc(size_t alignment, size_t size) noexcept {
    count(&CallCounts::Slot::allocations);
    return __libc_memalign(alignment, size);
}
}
