#include "shell/ServiceDaemonHelper.h"

#include <utility>

#include "config/ServiceConfigParser.h"
#include "utils/AccessController.h"
#include "utils/Log.h"
#include "utils/RunPaths.h"

namespace kelm {

// Makes the three files; of the locks only the alive lock is tried now.
ServiceDaemonHelper::ServiceDaemonHelper()
    : m_aliveMutex(RunPaths::aliveMutex(), true),
      m_readyMutex(RunPaths::readyMutex(), true),
      m_startExitMutex(RunPaths::startExitMutex(), true) {
    m_isLocked = m_aliveMutex.trylock();
    updateMutexFileAtrribute();
}

ServiceDaemonHelper::~ServiceDaemonHelper() { stopWaiting(); }

void ServiceDaemonHelper::daemonReadyToServe(std::function<void()> onHeld) {
    // A file that cannot be opened would never be locked; clients are served without it.
    if (!m_readyMutex.isOpen() || m_readyMutex.trylock()) return onHeld();
    m_readyWaiter = std::thread([this, onHeld = std::move(onHeld)] {
        if (waitForReadyLock()) onHeld();
    });
}

// Usually a client that looks whether the service is ready holds it, for an instant. One that keeps
// it must hold up nothing else, the end of the service least of all.
bool ServiceDaemonHelper::waitForReadyLock() {
    constexpr int kAttemptsBeforeWarning = 1000;
    long pauseMillisec = 1;
    for (int attempts = 1; !m_readyMutex.trylock(); ++attempts) {
        if (m_waitEnd.waitFor(pauseMillisec)) return false;
        if (attempts != kAttemptsBeforeWarning) continue;
        LOG_WARN("Warn: another process keeps %s locked: see lslocks(8) which one",
                 RunPaths::readyMutex());
        pauseMillisec = 100;
    }
    return true;
}

void ServiceDaemonHelper::stopWaiting() {
    if (!m_readyWaiter.joinable()) return;
    m_waitEnd.post();
    m_readyWaiter.join();
}

bool ServiceDaemonHelper::daemonReadyToStop(long timeoutMillisec) {
    // A file that cannot be opened would never be locked; the service leaves without it.
    return !m_startExitMutex.isOpen() || m_startExitMutex.lock(timeoutMillisec);
}

void ServiceDaemonHelper::daemonCancelStop() { m_startExitMutex.unlock(); }

void ServiceDaemonHelper::daemonStop() {
    stopWaiting();
    LOG_INFO("Info: KELM Service stops normally.");
}

void ServiceDaemonHelper::updateMutexFileAtrribute() {
    constexpr int kGroupMayReadAndWrite = 0660;
    AccessController& access = AccessController::instance();
    const std::string group = ServiceConfigParser::instance().getValidUserGroup();
    if (!group.empty()) access.setAccessAttribute("", group, kGroupMayReadAndWrite);
    // Through the descriptor: the name may stand for another file by now.
    for (const GlobalMutex* mutex : {&m_aliveMutex, &m_readyMutex, &m_startExitMutex}) {
        if (mutex->isOpen()) access.updateAccessAttribute(mutex->nativeHandle());
    }
}

}  // namespace kelm
