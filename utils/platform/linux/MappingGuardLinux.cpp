#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>

#include "utils/Log.h"
#include "utils/MappingGuard.h"

namespace kelm {

namespace {

// A mapping in one word, so that the handler never sees half of one: the number of its first page,
// how many pages it has, and two flags. 0 is a free place. A page here is the smallest of any
// processor; addresses have 48 bits.
constexpr int kPageBits = 12;
constexpr int kCountBits = 26;
constexpr int kFlagBits = 2;
constexpr uint64_t kBusy = 1;  // a handler replaces its pages; it must stay mapped
constexpr uint64_t kLost = 2;
constexpr uint64_t kMaxPages = (1ull << kCountBits) - 1;

using Place = std::atomic<uint64_t>;  // atomic: read by the handler, which can take no lock
static_assert(Place::is_always_lock_free);

std::array<Place, MappingGuard::kMaxMappings> places;
struct sigaction previousAction = {};

uint64_t pageOf(const void* address) { return reinterpret_cast<uintptr_t>(address) >> kPageBits; }
uint64_t firstPage(uint64_t mapping) { return mapping >> (kCountBits + kFlagBits); }
uint64_t pageCount(uint64_t mapping) { return (mapping >> kFlagBits) & kMaxPages; }

bool contains(uint64_t mapping, const void* address) {
    return pageOf(address) - firstPage(mapping) < pageCount(mapping);  // wraps around below it
}

// Not counted as memory of this process until it is touched, since a client may have claimed any
// size. The system call as it is: a library that wraps it takes it for a write to all the pages,
// which other threads may be using.
bool mapZeros(uintptr_t address, size_t size) {
    constexpr int kFlags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE;
    return ::syscall(SYS_mmap, address, size, PROT_READ | PROT_WRITE, kFlags, -1, 0) != -1;
}

// The whole mapping, or if there is no room for so much, the page that was touched.
bool replacePages(uint64_t mapping, const void* touched) {
    if (mapZeros(firstPage(mapping) << kPageBits, pageCount(mapping) << kPageBits)) return true;
    const auto size = static_cast<uintptr_t>(::getpagesize());
    return mapZeros(reinterpret_cast<uintptr_t>(touched) & ~(size - 1), size);
}

// In the handler. True if the touch is to be tried again.
bool replace(const void* touched) {
    for (Place& place : places) {
        uint64_t mapping = place.load();
        if (!contains(mapping, touched)) continue;
        if ((mapping & kBusy) != 0) return true;  // by another thread, which is about to be done
        const uint64_t lost = mapping | kLost;
        if (!place.compare_exchange_strong(mapping, lost | kBusy)) return true;
        const bool replaced = replacePages(mapping, touched);
        place.store(lost);
        return replaced;
    }
    return false;
}

// A fault comes again by itself, where it came from; what was only sent is sent again.
void giveBack(int signal, int code) {
    (void)::sigaction(signal, &previousAction, nullptr);
    if (code <= 0 || code == BUS_MCEERR_AO) (void)::raise(signal);
}

void handleBusError(int signal, siginfo_t* info, void*) {
    const int error = errno;
    const int code = info->si_code;
    if (code != BUS_ADRERR || !replace(info->si_addr)) giveBack(signal, code);
    errno = error;
}

// With the first mapping: a process that maps nothing keeps its own handler.
void installHandler() {
    static const bool installed = [] {
        struct sigaction action = {};
        action.sa_sigaction = &handleBusError;
        action.sa_flags = SA_SIGINFO;
        ::sigemptyset(&action.sa_mask);
        return ::sigaction(SIGBUS, &action, &previousAction) == 0;
    }();
    if (!installed) LOG_ERROR("Error: no handler for SIGBUS, a client can end the service");
}

// Where a mapping is looked for, in turn; mostly it has the first place.
Place& placeOf(const void* data, size_t turn) {
    return places[(pageOf(data) + turn) % places.size()];
}

// Whole pages of the system, since a touch behind the end of the file is found by its page.
bool enter(const void* data, size_t size) {
    const auto systemPage = static_cast<size_t>(::getpagesize());
    const uint64_t count = (size + systemPage - 1) / systemPage * (systemPage >> kPageBits);
    if (count > kMaxPages) return false;
    const uint64_t mapping = pageOf(data) << (kCountBits + kFlagBits) | count << kFlagBits;
    for (size_t turn = 0; turn < places.size(); ++turn) {
        Place& place = placeOf(data, turn);
        uint64_t expected = 0;
        if (place.load() == 0 && place.compare_exchange_strong(expected, mapping)) return true;
    }
    return false;
}

Place* find(const void* data) {
    for (size_t turn = 0; turn < places.size(); ++turn) {
        Place& place = placeOf(data, turn);
        const uint64_t mapping = place.load();
        if (mapping != 0 && firstPage(mapping) == pageOf(data)) return &place;
    }
    return nullptr;
}

// Waits for a handler that is at work on it. True if the mapping was lost.
bool leave(Place& place) {
    uint64_t mapping = place.load() & ~kBusy;
    while (!place.compare_exchange_weak(mapping, 0)) {
        if ((mapping & kBusy) != 0) (void)::sched_yield();
        mapping &= ~kBusy;
    }
    return (mapping & kLost) != 0;
}

}  // namespace

void* MappingGuard::map(int fd, size_t size) {
    installHandler();
    void* const data = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (data == MAP_FAILED) return nullptr;
    // Known to the handler before it can be touched. Without a free place the file is not mapped: a
    // mapping that is not guarded could end the process.
    if (enter(data, size)) return data;
    (void)::munmap(data, size);
    errno = ENOMEM;
    return nullptr;
}

// Out of the table first: once it is unmapped, the next mapping of any thread may get the address.
bool MappingGuard::unmap(void* data, size_t size) {
    Place* const place = find(data);
    if (place != nullptr && leave(*place)) {
        LOG_ERROR("Error: a client shortened its memory of %lu bytes while it was in use", size);
    }
    return ::munmap(data, size) == 0;
}

// Also asked while the mapping is in use; what is lost stays lost.
bool MappingGuard::isLost(const void* data) {
    const Place* const place = find(data);
    return place != nullptr && (place->load() & kLost) != 0;
}

}  // namespace kelm
