#pragma once

#include <memory>
#include <string>
#include <vector>

#include "utils/GlobalMutex.h"
#include "utils/Mutex.h"
#include "utils/Singleton.h"

namespace kelm {

class SubProcess;

// Starts the boot tool, which gives the accelerators their firmware, replaces one that runs
// already, and starts it anew whenever it ends. Service and tool agree through three lock files:
// the tool holds alive while it runs and ready once the devices can be used; start-exit is held by
// the process that is starting or supervising it.
//
// Threads: any; the main thread in the service.
// Owns: the supervision, but not the tool, which runs on without the service.
// Locks: m_mutex is held for the whole start.
class AutobootStarter : public Singleton<AutobootStarter> {
 public:
    AutobootStarter();
    ~AutobootStarter();  // leaves the tool running

    // Returns once the tool is ready; false, logged, if there is none or it does not come up. A
    // tool that is up gets all the time that it needs. The files are passed on to it.
    bool launch(const std::vector<std::string>& bootConfigFiles) EXCLUDES(m_mutex);
    // Ends the supervising and lets others start the tool.
    void stop() EXCLUDES(m_mutex);

 private:
    // 0, or negative for a failure, which is logged.
    int checkAndStartService() REQUIRES(m_mutex);
    int startService() REQUIRES(m_mutex);
    int stopRunningService() REQUIRES(m_mutex);
    int createService() REQUIRES(m_mutex);
    int waitServiceReady() REQUIRES(m_mutex);
    void stopSupervising() REQUIRES(m_mutex);

    GlobalMutex m_aliveMutex;
    GlobalMutex m_readyMutex;
    GlobalMutex m_startExitMutex;
    Mutex m_mutex;
    std::vector<std::string> m_bootConfigFiles GUARDED_BY(m_mutex);
    std::unique_ptr<SubProcess> m_subProcess GUARDED_BY(m_mutex);
};

}  // namespace kelm
