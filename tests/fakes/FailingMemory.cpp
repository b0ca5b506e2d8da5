#include "fakes/FailingMemory.h"

#include <atomic>
#include <cstdint>
#include <new>

namespace {

std::atomic<size_t> s_first{SIZE_MAX};  // of the sizes that fail

bool fails(size_t size) { return size >= s_first.load(std::memory_order_relaxed); }

}  // namespace

// The linker leads the calls of each object file and archive here.
extern "C" {
void* __real_malloc(size_t size);                // NOLINT: the linker's name
void* __real_realloc(void* block, size_t size);  // NOLINT
void* __real__Znwm(size_t size);                 // NOLINT: operator new

void* __wrap_malloc(size_t size) { return fails(size) ? nullptr : __real_malloc(size); }  // NOLINT
void* __wrap_realloc(void* block, size_t size) {                                          // NOLINT
    return fails(size) ? nullptr : __real_realloc(block, size);
}
void* __wrap__Znwm(size_t size) {  // NOLINT
    if (fails(size)) throw std::bad_alloc();
    return __real__Znwm(size);
}
}

namespace kelm {

NoMemoryFrom::NoMemoryFrom(size_t bytes) { s_first.store(bytes); }
NoMemoryFrom::~NoMemoryFrom() { s_first.store(SIZE_MAX); }

}  // namespace kelm
