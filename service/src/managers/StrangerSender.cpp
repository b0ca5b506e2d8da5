#include "managers/StrangerSender.h"

#include <cerrno>
#include <system_error>
#include <thread>
#include <utility>

#include "managers/ClientManager.h"
#include "managers/MessageTag.h"
#include "utils/IPC.h"
#include "utils/Log.h"
#include "utils/StepTrace.h"

namespace kelm {

namespace {

constexpr uint64_t kMaxMessagesOfStrangers = 500;
constexpr std::chrono::seconds kPatience{1};
constexpr std::chrono::milliseconds kTurnPause{10};

}  // namespace

StrangerSender::StrangerSender(StepTrace trace)
    : m_trace(std::move(trace)),
      m_backlog(kMaxMessagesOfStrangers),
      m_pool("ResDpSend", kMaxMessagesOfStrangers) {}

void StrangerSender::post(std::shared_ptr<IPC::ConnectionBase> connection, MessagePtr message) {
    post(std::move(connection), std::move(message), false);
}

void StrangerSender::postLast(std::shared_ptr<IPC::ConnectionBase> connection, MessagePtr message) {
    post(std::move(connection), std::move(message), true);
}

void StrangerSender::post(std::shared_ptr<IPC::ConnectionBase> connection, MessagePtr message,
                          bool isLast) {
    if (m_backlog.isFull() && !SerialPool::deferWait([this] { m_backlog.waitForRoom(); })) {
        m_backlog.waitForRoom();
    }
    m_backlog.add(message->size);
    // The second runs from here: an answer that has waited behind others has only the rest of it,
    // or a row of peers that do not read would delay the last one by a second each.
    m_pool.postNotice([this, connection = std::move(connection), message = std::move(message),
                       deadline = Clock::now() + kPatience, isLast] {
        write(*connection, *message, deadline);
        if (isLast) ClientManager::instance().closeClient(connection->getSimulateFD());
        m_backlog.remove(message->size);
    });
}

void StrangerSender::write(IPC::ConnectionBase& connection, const KelmMsgBase& message,
                           Clock::time_point deadline) {
    // Thousands of answers may wait for a peer that has hung up, and each failed write costs an
    // exception.
    if (!connection.connected()) return logFailure(connection, message, "not connected");
    try {
        if (writeInTime(connection, message, deadline)) {
            LOG_STEP("send%s through socket(%d) done, ret=%s", MessageTag(message).text(),
                     connection.getSimulateFD(), std::generic_category().message(0));
            return;
        }
    } catch (const std::exception& error) {
        const int cause = errno;
        LOG_ERROR("%s", error.what());
        return logFailure(connection, message, std::generic_category().message(cause).c_str());
    }
    logFailure(connection, message, "the peer does not read");
    LOG_ERROR("Error: socket(%d) is closed: it never registered and does not read its answers",
              connection.getSimulateFD());
    ClientManager::instance().closeClient(connection.getSimulateFD());
}

bool StrangerSender::writeInTime(IPC::ConnectionBase& connection, const KelmMsgBase& message,
                                 Clock::time_point deadline) {
    const auto goOn = [&] { return Clock::now() < deadline && !m_backlog.isFull(); };
    Mutex& mutex = connection.writeMutex();
    // By trying: a wait for the mutex would have no limit.
    while (!mutex.tryLock()) {  // the peer has registered meanwhile, and its ClientSender writes
        if (!goOn()) return false;
        OwedPools::settle();
        std::this_thread::sleep_for(kTurnPause);
    }
    MutexLock lock(mutex, std::adopt_lock);
    if (connection.write(&message, static_cast<int>(message.size), goOn)) return true;
    connection.shutdown();  // before the next writer's turn: half a record may be out
    return false;
}

void StrangerSender::logFailure(const IPC::ConnectionBase& connection, const KelmMsgBase& message,
                                const char* reason) const {
    LOG_STEP("Error: send%s through socket(%d) failed, ret=%s", MessageTag(message).text(),
             connection.getSimulateFD(), reason);
}

}  // namespace kelm
