// Counts what the program that preloads it asks of the heap, in the file that KELM_CALL_COUNTS
// names, but not inside of the accelerator library, whose functions are wrapped as they are looked
// up.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "execution/TevoLibrary.h"

extern "C" void* __libc_malloc(size_t size);

namespace {

std::atomic<uint64_t>* allocations = nullptr;
thread_local int callsOfLibrary = 0;

[[gnu::constructor]] void openCounts() {
    const char* const path = std::getenv("KELM_CALL_COUNTS");
    const int fd = path != nullptr ? ::open(path, O_RDWR | O_CLOEXEC) : -1;
    if (fd < 0) return;
    void* const memory =
        ::mmap(nullptr, sizeof(*allocations), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (memory != MAP_FAILED) allocations = static_cast<std::atomic<uint64_t>*>(memory);
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
    if (allocations != nullptr && callsOfLibrary == 0) allocations->fetch_add(1);
    return __libc_malloc(size);
}
}
