#include "tools/autoboot/AutobootStarter.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include "utils/CommonHelper.h"
#include "utils/FileHelper.h"
#include "utils/Log.h"
#include "utils/RunPaths.h"
#include "utils/platform/linux/ProcessHelper.h"
#include "utils/platform/linux/SubProcess.h"

namespace kelm {

namespace {

constexpr const char* kToolName = "autoboot";
constexpr int kFailure = -1;
// For a tool that has not taken its alive lock yet: 3 seconds in all.
constexpr int kAttempts = 30;
constexpr std::chrono::milliseconds kPauseUntilAlive{100};
constexpr std::chrono::milliseconds kPauseUntilReady{5};
constexpr long kTimeToEndMillisec = 3000;

// Whether no other process holds the lock at the moment.
bool isFree(GlobalMutex& mutex) { return mutex.trylock() && mutex.unlock(); }

bool comesFree(GlobalMutex& mutex) { return mutex.lock(kTimeToEndMillisec) && mutex.unlock(); }

std::string getInstallDir() {
    std::string directory = CommonHelper::getKelmInstallDir();
    if (directory.empty()) LOG_ERROR("Error: Need specify KELM_INSTALL_DIR.");
    return directory;
}

}  // namespace

AutobootStarter::AutobootStarter()
    : m_aliveMutex(RunPaths::autobootAliveMutex(), true),
      m_readyMutex(RunPaths::autobootReadyMutex(), true),
      m_startExitMutex(RunPaths::autobootStartExitMutex(), true) {}

AutobootStarter::~AutobootStarter() {
    MutexLock lock(m_mutex);
    if (m_subProcess) m_subProcess->abandon();
}

bool AutobootStarter::launch(const std::vector<std::string>& bootConfigFiles) {
    MutexLock lock(m_mutex);
    m_bootConfigFiles = bootConfigFiles;
    if (checkAndStartService() >= 0) return true;
    LOG_ERROR("Error: Failed to start autoboot");
    return false;
}

void AutobootStarter::stop() {
    MutexLock lock(m_mutex);
    stopSupervising();
    m_startExitMutex.unlock();
}

void AutobootStarter::stopSupervising() {
    if (m_subProcess) (void)m_subProcess->enableDaemon(false);  // turning it off cannot fail
}

// The lock lets one process at a time start or supervise the tool. It is not waited for, since its
// holder keeps it for as long as it supervises.
int AutobootStarter::checkAndStartService() {
    if (!m_startExitMutex.trylock()) {
        LOG_ERROR("Error: Lock StartExitMutex:%s failed. errno = %d [%s]",
                  RunPaths::autobootStartExitMutex(), errno, std::strerror(errno));
        return kFailure;
    }
    if (startService() >= 0 && waitServiceReady() >= 0) return 0;  // held until stop()
    stopSupervising();
    m_startExitMutex.unlock();
    return kFailure;
}

// A tool that runs already is replaced: only a child of this process can be supervised.
int AutobootStarter::startService() {
    // Without its locks nothing can be told about a tool.
    if (!m_aliveMutex.isOpen() || !m_readyMutex.isOpen()) return kFailure;
    if (isFree(m_aliveMutex)) {
        LOG_INFO("Info: No running autoboot process. Start autoboot daemon...");
    } else if (stopRunningService() < 0) {
        return kFailure;
    }
    if (createService() >= 0) return 0;
    LOG_ERROR("Error: failed to start autoboot daemon");
    return kFailure;
}

// Returns once the old tool has released both locks, which it does one after the other: its ready
// lock must not pass for the new tool's.
int AutobootStarter::stopRunningService() {
    ProcessHelper::killProcessByName(kToolName);
    if (comesFree(m_aliveMutex) && comesFree(m_readyMutex)) return 0;
    LOG_ERROR("Error: the running autoboot process does not end.");
    return kFailure;
}

int AutobootStarter::createService() {
    const std::string directory = getInstallDir();
    if (directory.empty()) return kFailure;
    const std::string program = directory + "/bin/" + kToolName;
    if (!FileHelper::exist(program)) {
        LOG_ERROR("Error: Cannot find autoboot program: %s.", program);
        return kFailure;
    }
    std::vector<std::string> arguments{program, "--auxiliary"};
    if (!m_bootConfigFiles.empty()) {
        arguments.push_back("-c");
        arguments.insert(arguments.end(), m_bootConfigFiles.begin(), m_bootConfigFiles.end());
    }
    m_subProcess = std::make_unique<SubProcess>(std::move(arguments));
    return m_subProcess->execute(false) && m_subProcess->enableDaemon(true) ? 0 : kFailure;
}

int AutobootStarter::waitServiceReady() {
    if (getInstallDir().empty()) return kFailure;
    int attempts = kAttempts;
    while (attempts > 0 && isFree(m_readyMutex)) {
        if (isFree(m_aliveMutex)) {
            std::this_thread::sleep_for(kPauseUntilAlive);
            --attempts;
        } else {
            // Deliberate: no bound, a tool that is up may have many devices to boot.
            std::this_thread::sleep_for(kPauseUntilReady);
        }
    }
    if (isFree(m_readyMutex)) {
        LOG_ERROR("Error: Wait autoboot Ready failed due to timeout.");
        return kFailure;
    }
    LOG_INFO("Info: Found autoboot is running.");
    return 0;
}

}  // namespace kelm
