#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "protocol/src/KelmMessage.h"
#include "protocol/src/MessagePtr.h"

namespace kelm {

// A client's request from its receipt until its answer. Code that holds one owes the answer: the
// calls of the result dispatcher that build answers consume it. If it is destroyed before that, its
// message and descriptors are released and the log says so in one line, unless no answer is wanted.
// If that happens for an exception, during it or in its handler, the connection ends as well: the
// client would wait for ever.
//
// Threads: one at a time; a request is handed on by moving it into the next thread's job.
// Owns: the message, and through it a share of the connection that it came on, whose number is
// given to no other meanwhile.
class Request {
 public:
    Request() = default;  // none
    // `socket` is the number of the connection that the message came on.
    Request(MessagePtr message, int socket) noexcept
        : m_message(std::move(message)), m_socket(socket) {}
    Request(Request&&) noexcept = default;
    Request& operator=(Request&& other) noexcept;
    ~Request() { abandon(); }

    explicit operator bool() const { return m_message != nullptr; }

    KelmMsgType getType() const { return static_cast<KelmMsgType>(m_message->type); }
    int getSocket() const { return m_socket; }
    // The client that the message names, which need not be one of its sender's; 0 for a request of
    // a type that names none.
    uint64_t getClientId() const;
    bool wantsAnswer() const;

    // The message as the record of its type, which the caller knows.
    template <class Record>
    Record& as() const {
        return *reinterpret_cast<Record*>(m_message.get());
    }
    KelmMsgBase* getMessage() const { return m_message.get(); }

    // Makes this no request any more; for the code that builds the answer, or that owes none.
    MessagePtr take() { return std::move(m_message); }

    // Keeps something until this object is destroyed, which the answer's job does last.
    void keep(std::shared_ptr<const void> share) { m_kept = std::move(share); }

 private:
    void abandon() noexcept;

    MessagePtr m_message;
    int m_socket = -1;
    std::shared_ptr<const void> m_kept;
};

}  // namespace kelm
