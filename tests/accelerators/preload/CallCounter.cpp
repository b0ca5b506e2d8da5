// Counts calls of the program that preloads it; see CallCounts.h. The accelerator library is told
// apart by wrapping its functions as they are looked up.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "accelerators/preload/CallCounts.h"
#include "execution/TevoLibrary.h"

using kelm::CallCounts;

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

CallCounts* counts = nullptr;
thread_local int callsOfLibrary = 0;

void countAllocation() {
    if (counts != nullptr && callsOfLibrary == 0) counts->allocations.fetch_add(1);
}

[[gnu::constructor]] void openCounts() {
    const char* const path = std::getenv("KELM_CALL_COUNTS");
    const int fd = path != nullptr ? ::open(path, O_RDWR | O_CLOEXEC) : -1;
    if (fd < 0) return;
    void* const memory =
        ::mmap(nullptr, sizeof(CallCounts), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (memory != MAP_FAILED) counts = static_cast<CallCounts*>(memory);
}

// One of the library's functions; the tag tells those of one type apart.
template <class Tag, class Function>
struct Wrapper;
template <class Tag, class... Args>
struct Wrapper<Tag, int (*)(Args...)> {
    static inline int (*real)(Args...) = nullptr;

    static int call(Args... args) {
        ++callsOfLibrary;
        const int status = real(args...);
        --callsOfLibrary;
        return status;
    }
    static void* around(void* function) {
        real = reinterpret_cast<int (*)(Args...)>(function);
        return function != nullptr ? reinterpret_cast<void*>(&call) : nullptr;
    }
};

void* wrap(const char* name, void* found) {
#define KELM_WRAP_ROW(function)            \
    if (std::strcmp(name, #function) == 0) \
        return Wrapper<struct function##Tag, decltype(&::function)>::around(found);
    KELM_TEVO_FUNCTIONS(KELM_WRAP_ROW)
#undef KELM_WRAP_ROW
    return found;
}

}  // namespace

extern "C" {

void* dlsym(void* handle, const char* name) noexcept {
    using Lookup = void* (*)(void*, const char*);
    static const auto real = reinterpret_cast<Lookup>(::dlvsym(RTLD_NEXT, "dlsym", "GLIBC_2.2.5"));
    return wrap(name, real(handle, name));
}

void* malloc(size_t size) noexcept {
    countAllocation();
    return __libc_malloc(size);
}
void* calloc(size_t number, size_t size) noexcept {
    countAllocation();
    return __libc_calloc(number, size);
}
void* realloc(void* memory, size_t size) noexcept {
    countAllocation();
    return __libc_realloc(memory, size);
}
void* aligned_alloc(size_t alignment, size_t size) noexcept {
    countAllocation();
    return __libc_memalign(alignment, size);
}
}
