// Preloaded into a service that is to starve: what its file says decides whether threads can be
// started and how far the wall clock is off. The file has two numbers of 8 bytes: seconds, and not
// 0 for no threads.

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

namespace {

struct Controls {
    volatile int64_t seconds;
    volatile uint64_t noThreads;
};

const Controls* findControls() {
    static const Controls none{0, 0};
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

}  // namespace

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
