#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {

// Counts the messages that wait for a peer, and holds up the thread that adds one while they are
// both many and large: a peer that does not read costs memory up to a bound, and then time. The
// senders of one connection's clients share one, since the bound is the connection's; all peers
// without a client share one too.
//
// Threads: any. Locks: m_mutex is a leaf.
class Backlog : public NonCopyable {
 public:
    // Bytes of records that may wait beyond the messages which always have room.
    static constexpr uint64_t kMaxBytes = 16U << 20;

    // `messages` is how many have room whatever their size.
    explicit Backlog(uint64_t messages) : m_maxMessages(messages) {}

    // Waits until there is room: before add(), for a thread that may wait.
    void waitForRoom() EXCLUDES(m_mutex);
    void add(uint64_t bytes);
    // A notice counts as a message without bytes, and never waits.
    void addNotice() { m_messages.fetch_add(1); }
    void remove(uint64_t bytes) EXCLUDES(m_mutex);
    bool isFull() const { return m_messages.load() >= m_maxMessages && m_bytes.load() > kMaxBytes; }
    // Whether so much has waited at once that the freed memory is worth giving back.
    bool wasLarge() const { return m_wasLarge.load(); }

 private:
    const uint64_t m_maxMessages;
    // Atomics: each message passes here twice, and the mutex is only for waiting.
    std::atomic<uint64_t> m_messages{0};
    std::atomic<uint64_t> m_bytes{0};
    std::atomic<uint32_t> m_waiters{0};
    std::atomic<bool> m_wasLarge{false};

    Mutex m_mutex;
    CondVar m_roomCond;
};

}  // namespace kelm
