#pragma once

#include <functional>
#include <thread>

#include "utils/GlobalMutex.h"
#include "utils/Semaphore.h"
#include "utils/Singleton.h"

namespace kelm {

// The three lock files by which client libraries and tools tell the service's phase: alive from
// before anything else is started, ready once clients are served, start-exit once the service is
// about to leave.
//
// Threads: the main thread only. While another process holds the ready lock, a thread of this
// object waits for it. Locks: alive and ready are never given back; the kernel drops them when the
// process ends.
class ServiceDaemonHelper : public Singleton<ServiceDaemonHelper> {
 public:
    // Tries the alive lock, and gives the files their group and mode.
    ServiceDaemonHelper();
    ~ServiceDaemonHelper();

    // False if another service holds the alive lock.
    bool isLocked() const { return m_isLocked; }
    // Takes the ready lock, and never waits: if another process holds it, it is taken as soon as
    // that one releases it, unless daemonStop() comes first. Calls when it is held, which in that
    // case is on another thread; at once, if the file could not be opened.
    void daemonReadyToServe(std::function<void()> onHeld = [] {});
    // From here a client that wants the service waits until this process has ended. False if the
    // time is up first: a client that is starting the service holds the lock.
    bool daemonReadyToStop(long timeoutMillisec);
    void daemonCancelStop();
    void daemonStop();

 private:
    void updateMutexFileAtrribute();
    // False if the wait was ended.
    bool waitForReadyLock();
    void stopWaiting();

    bool m_isLocked = false;
    GlobalMutex m_aliveMutex;
    GlobalMutex m_readyMutex;
    GlobalMutex m_startExitMutex;
    Semaphore m_waitEnd{0, 0};  // posted when the waiter is to give up the ready lock
    std::thread m_readyWaiter;
};

}  // namespace kelm
