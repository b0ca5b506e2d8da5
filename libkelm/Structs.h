#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kelm::lib {

// The structs of the interface grow at their ends; `size` tells which version a program knows.

// More than any version will have: the size is that of another thing, or was never set.
constexpr uint32_t kLargestStruct = 4096;

template <class T>
bool isStruct(const T* given) {
    return given != nullptr && given->size >= sizeof(uint32_t) && given->size <= kLargestStruct;
}

// A program's struct as this library knows it: what an older program does not have is 0. False if
// there is no such struct, or if it has more than this library knows and asks for it.
template <class T>
bool readStruct(const T* given, T& known) {
    known = T{};
    if (!isStruct(given)) return false;
    const auto* bytes = reinterpret_cast<const unsigned char*>(given);
    const size_t size = given->size;
    std::memcpy(static_cast<void*>(&known), bytes, std::min(size, sizeof(T)));
    if (size <= sizeof(T)) return true;
    return std::all_of(bytes + sizeof(T), bytes + size,
                       [](unsigned char byte) { return byte == 0; });
}

// Fills a program's struct as far as both know it.
template <class T>
bool writeStruct(const T& known, T* given) {
    if (!isStruct(given)) return false;
    const uint32_t size = given->size;
    auto* bytes = reinterpret_cast<unsigned char*>(given);
    std::memcpy(bytes, &known, std::min<size_t>(size, sizeof(T)));
    if (size > sizeof(T)) std::memset(bytes + sizeof(T), 0, size - sizeof(T));
    given->size = size;
    return true;
}

}  // namespace kelm::lib
