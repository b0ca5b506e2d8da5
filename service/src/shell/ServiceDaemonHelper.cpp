#include "shell/ServiceDaemonHelper.h"

#include "config/ServiceConfigParser.h"
#include "utils/AccessController.h"
#include "utils/Log.h"
#include "utils/RunPaths.h"

namespace kelm {

ServiceDaemonHelper::ServiceDaemonHelper()
    : m_aliveMutex(RunPaths::aliveMutex(), true),
      m_readyMutex(RunPaths::readyMutex(), true),
      m_startExitMutex(RunPaths::startExitMutex(), true) {
    m_isLocked = m_aliveMutex.trylock();
    updateMutexFileAtrribute();
}

void ServiceDaemonHelper::daemonReadyToServe() { m_readyMutex.lock(); }

bool ServiceDaemonHelper::daemonReadyToStop(long timeoutMillisec) {
    // A file that cannot be opened would never be locked; the service leaves without it.
    return !m_startExitMutex.isOpen() || m_startExitMutex.lock(timeoutMillisec);
}

void ServiceDaemonHelper::daemonCancelStop() { m_startExitMutex.unlock(); }

void ServiceDaemonHelper::daemonStop() { LOG_INFO("Info: KELM Service stops normally."); }

void ServiceDaemonHelper::updateMutexFileAtrribute() {
    constexpr int kGroupMayReadAndWrite = 0660;
    AccessController& access = AccessController::instance();
    const std::string group = ServiceConfigParser::instance().getValidUserGroup();
    if (!group.empty()) access.setAccessAttribute("", group, kGroupMayReadAndWrite);
    for (const std::string& path :
         {RunPaths::aliveMutex(), RunPaths::readyMutex(), RunPaths::startExitMutex()}) {
        access.updateAccessAttribute(path);
    }
}

}  // namespace kelm
