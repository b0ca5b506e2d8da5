#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "reporting/InfoCollector.h"
#include "utils/Mutex.h"
#include "utils/Semaphore.h"
#include "utils/SerialPool.h"
#include "utils/Singleton.h"
#include "utils/StepTrace.h"

namespace kelm {

class SnapshotServer;
struct InfoPackage;
class Request;
struct KelmStatus;

// The three ways to look into the running service: listeners that print into the log once an
// interval, the status query of the client protocol, and the packages for tools on the snapshot
// socket.
//
// A query's record is filled by several managers at a time and answered when the last has reported;
// it owns the request until then.
//
// Threads: listeners are called on one thread of its own, packages are collected on the snapshot
// server's, queries are handled on the pool; construction, setupListenThread(), start() and stop()
// on one thread, the rest on any.
// Owns: its threads, the snapshot server, and records until they are answered. Borrows listeners
// until they unregister.
// Locks: m_listenersMutex, then whatever a listener takes; m_mutex is a leaf.
class InfoPrinter final : public Singleton<InfoPrinter>, public InfoCollector {
 public:
    explicit InfoPrinter(const char* name = "InfoPrinter");
    ~InfoPrinter();

    // Opens the snapshot socket; raises if it cannot be made. Not part of the construction, which
    // the first listener that registers may bring about, and which therefore must not fail.
    void setupListenThread();
    // From here on listeners are called and tools are served.
    void start() EXCLUDES(m_mutex);
    // Ends both threads in bounded time; queries are dropped from here on. False if one has not
    // ended: static objects are still in use then.
    bool stop() EXCLUDES(m_mutex);
    // True when no query is being handled within the time.
    bool waitIdleFor(std::chrono::milliseconds time) { return m_pool.waitIdleFor(time); }

    int getPrintIntervalMillisec() const;

    // A listener must not unregister another one from inside its call.
    bool registerListener(PrintInfoListener* listener) override EXCLUDES(m_listenersMutex);
    void unregisterListener(PrintInfoListener* listener) override EXCLUDES(m_listenersMutex);

    // Blocks while the pool is full. A type without a known bit gets no answer.
    void enqueueQueryStatus(Request request);
    void enqueueQueryStatusDone(const std::shared_ptr<KelmStatus>& status,
                                const std::string& source) override;
    void enqueueUpdateInfoPackageDone(const std::string& source) override;

 private:
    void mainThreadRoutine();
    // False when the thread is to end.
    bool waitForStart() EXCLUDES(m_mutex);
    bool waitForNextPass() EXCLUDES(m_mutex);
    void printInfo() EXCLUDES(m_listenersMutex);
    bool isStopped() EXCLUDES(m_mutex);

    void queryStatus(Request request);
    // One part is filled; the last one sends the answer.
    void queryStatusDone(const std::shared_ptr<KelmStatus>& status);
    // Returns when every manager has written its section and uses the package no more.
    void collectInfoPackage(InfoPackage* package);

    const std::string m_name;
    const std::chrono::seconds m_interval;  // 0 is allowed
    const StepTrace m_trace;

    Mutex m_mutex;
    CondVar m_stateCond;
    bool m_started GUARDED_BY(m_mutex) = false;
    bool m_stop GUARDED_BY(m_mutex) = false;

    Mutex m_listenersMutex;
    std::vector<PrintInfoListener*> m_listeners GUARDED_BY(m_listenersMutex);

    Semaphore m_packageParts{0, 0};  // sections of the package that is being collected
    std::unique_ptr<SnapshotServer> m_snapshotServer;
    Semaphore m_mainEnded{0, 0};
    std::thread m_mainThread;
    SerialPool m_pool;  // last: its jobs use all of the above
};

}  // namespace kelm
