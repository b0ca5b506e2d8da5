#pragma once

#include <atomic>
#include <cstdint>

// Sleeping on a word that other threads change. Any thread; each call is one system call.
namespace kelm::futex {

// Returns when woken, at once if the word is another by now, and now and then for no reason.
void wait(const std::atomic<uint32_t>& word, uint32_t value);
// The word is only named: its memory may be freed by then.
void wakeOne(const std::atomic<uint32_t>& word);

}  // namespace kelm::futex
