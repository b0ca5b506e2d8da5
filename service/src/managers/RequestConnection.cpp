#include "managers/RequestConnection.h"

#include <sys/ioctl.h>

namespace kelm {

namespace {

// Clients cannot take the last numbers, so that an operator's tools always get in.
constexpr int kNumbersForTools = 16;

}  // namespace

std::shared_ptr<RequestConnection> RequestConnection::tryMake(IPC::Poller* poller) {
    const int number = reserveNumber(kNumbersForTools);
    if (number < 0) return nullptr;
    return std::shared_ptr<RequestConnection>(new RequestConnection(poller, number));
}

MessageAssembler::State RequestConnection::receive(bool hungUp) {
    const bool wasInside = m_assembler.isInsideMessage();
    const auto state = hungUp ? m_assembler.receiveRest(*this) : m_assembler.receiveArrived(*this);
    m_waitsForBytes = m_assembler.isInsideMessage() && state == MessageAssembler::State::kWaiting;
    if (m_waitsForBytes) {
        m_lastBytes = Clock::now();
        if (!wasInside) m_waitsSince = m_lastBytes;
    }
    return state;
}

MessagePtr RequestConnection::takeRequest() { return m_assembler.take(shared_from_this()); }

std::optional<RequestConnection::Clock::time_point> RequestConnection::idleSince(
    Clock::duration patience) {
    if (!m_waitsForBytes || Clock::now() - m_waitsSince < patience) return std::nullopt;
    // What has come while this thread was busy elsewhere is not silence.
    int unread = 0;
    if (::ioctl(nativeHandle(), FIONREAD, &unread) == 0 && unread > 0) return std::nullopt;
    return m_lastBytes;
}

}  // namespace kelm
