// Preloaded into a service that is to starve: what its file says decides whether threads can be
// started, how far the wall clock is off, and how often `new` finds no memory. The file has three
// numbers of 8 bytes: seconds, not 0 for no threads, and N where one `new` in N finds none.

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

struct Controls {
    volatile int64_t seconds;
    volatile uint64_t noThreads;
    volatile uint64_t scarcity;
};

const Controls* findControls() {
    static const Controls none{0, 0, 0};
    const char* const path = ::getenv("KELM_PROVE_SHIM");
    const int file = path != nullptr ? ::open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (file < 0) return &none;
    void* const data = ::mmap(nullptr, sizeof(Controls), PROT_READ, MAP_SHARED, file, 0);
    ::close(file);
    return data != MAP_FAILED ? static_cast<const Controls*>(data) : &none;
}

const Controls& controls() {
    static const Controls* const found = findControls();
    return *found;
}

template <class Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

// By a sequence of each thread's own (xorshift), since a common one would be a place to meet.
bool findsNone(uint64_t scarcity) {
    thread_local uint64_t state = static_cast<uint64_t>(::gettid()) * 0x9e3779b97f4a7c15U;
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state % scarcity == 0;
}

}  // namespace

// The handler is asked twice: the first time it may have something in reserve.
void* operator new(size_t size) {
    const uint64_t scarcity = controls().scarcity;
    int failures = scarcity != 0 && findsNone(scarcity) ? 2 : 0;
    for (;;) {
        void* const block = failures-- > 0 ? nullptr : std::malloc(size);
        if (block != nullptr) return block;
        const std::new_handler handler = std::get_new_handler();
        if (handler == nullptr) throw std::bad_alloc();
        handler();
    }
}

void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, size_t) noexcept { std::free(block); }

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*routine)(void*), void* argument) {
    static const auto real = next<decltype(&pthread_create)>("pthread_create");
    return controls().noThreads != 0 ? EAGAIN : real(thread, attributes, routine, argument);
}

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    static const auto real = next<decltype(&clock_gettime)>("clock_gettime");
    const int result = real(clock, time);
    if (clock == CLOCK_REALTIME) time->tv_sec += controls().seconds;
    return result;
}

extern "C" int gettimeofday(timeval* time, void* zone) noexcept {
    static const auto real = next<decltype(&gettimeofday)>("gettimeofday");
    const int result = real(time, zone);
    time->tv_sec += controls().seconds;
    return result;
}

extern "C" time_t time(time_t* result) noexcept {
    timespec now = {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    if (result != nullptr) *result = now.tv_sec;
    return now.tv_sec;
}
