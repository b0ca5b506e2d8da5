#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "protocol/src/InfoPackage.h"
#include "utils/NonCopyable.h"
#include "utils/ReceiveBuffer.h"
#include "utils/Semaphore.h"
#include "utils/StepTrace.h"
#include "utils/ThreadRole.h"
#include "utils/UniqueFd.h"

namespace IPC {
class ConnectionUDS;
class Poller;
struct PollEvent;
}  // namespace IPC

namespace kelm {

// Streams packages to the tools on the snapshot socket: to all of them whenever one connects or
// leaves, and at least once a period. What tools send is thrown away. With no tool nothing is
// collected.
//
// Tools get whole packages, in order, and do not hold up one another or the end. One that is behind
// (what it has not read yet leaves no room for another package) is passed over until it has read,
// and makes room if a new tool needs its place. A package is written to the others at once, under
// one limit of time, after which those that have not taken it whole are disconnected.
//
// Threads: one of its own, "InfoServer"; construction, start() and stop() on one other thread at a
// time. Owns: the socket, the poller and the tools' connections.
class SnapshotServer : public NonCopyable {
 public:
    // Fills the package, which keeps what it held before; on the server's thread.
    using Collect = std::function<void(InfoPackage& package)>;
    struct Limits {
        std::chrono::milliseconds period{5000};
        std::chrono::milliseconds writing{1000};  // of one package, to all tools together
        size_t tools = 64;                        // at a time; others are turned away
        // What the kernel is asked to hold for one tool, so that tools may sleep between packages.
        int sendBuffer = sizeof(InfoPackage);
    };

    // Opens the socket; raises if it cannot be made. Tools wait outside until start().
    SnapshotServer(const std::string& path, Collect collect, StepTrace trace, Limits limits);
    ~SnapshotServer();  // waits for the thread without limit

    void start();
    // Ends the thread and disconnects all tools. False if the thread has not ended in time, since
    // a collection does not; it may be tried again.
    bool stop(std::chrono::milliseconds time);

 private:
    using Clock = std::chrono::steady_clock;

    // A connected tool.
    struct Tool {
        std::shared_ptr<IPC::ConnectionUDS> connection;
        size_t received = 0;  // bytes, in its life
        size_t sent = 0;      // bytes of the package that is being written
        size_t room = 0;      // bytes that the kernel holds for it
        std::optional<Clock::time_point> behindSince;
    };

    void requestStop();
    void listenThreadRoutine();
    // Waits for events and handles them; true when a package is due.
    bool waitForPass() REQUIRES(m_onThread);
    void waitForEvent() REQUIRES(m_onThread);
    // Until then, or until the stop.
    void sleepUntil(Clock::time_point deadline);

    // True for an event after which all tools get a package.
    bool handleEpollEvent(const IPC::PollEvent& event) REQUIRES(m_onThread);
    bool acceptTool() REQUIRES(m_onThread);
    // False when all places are taken by tools that read.
    bool makePlace() REQUIRES(m_onThread);
    void refuseTool() REQUIRES(m_onThread);
    void pauseAccepting() REQUIRES(m_onThread);
    void resumeAccepting() REQUIRES(m_onThread);
    // False for a tool that talks too much.
    bool dropInput(Tool& tool) REQUIRES(m_onThread);
    void closeTool(int number) REQUIRES(m_onThread);
    void closeAll() REQUIRES(m_onThread);

    void writePackage(const InfoPackage& package) REQUIRES(m_onThread);
    // The tools that are to get the next package.
    std::vector<int> findTakers() REQUIRES(m_onThread);
    bool isBehind(Tool& tool) REQUIRES(m_onThread);
    // False while the kernel takes no more; true when all is written or the connection has failed.
    bool writeSome(Tool& tool, const InfoPackage& package) REQUIRES(m_onThread);
    // False when the time is up or the server stops.
    bool waitWritable(const std::vector<int>& numbers, Clock::time_point deadline)
        REQUIRES(m_onThread);

    const Collect m_collect;
    const StepTrace m_trace;
    const Limits m_limits;
    std::atomic<bool> m_stop{false};  // atomic: set by the stopping thread, read by the server's
    UniqueFd m_wakeFd;                // readable for good once the stop is wanted
    std::shared_ptr<IPC::Poller> m_poller;
    std::shared_ptr<IPC::ConnectionUDS> m_listener;

    ThreadRole m_onThread;
    std::map<int, Tool> m_tools GUARDED_BY(m_onThread);  // by the number of the connection
    IPC::ReceiveBuffer m_input GUARDED_BY(m_onThread);   // empty but for one reading
    Clock::time_point m_nextPackage GUARDED_BY(m_onThread);
    std::optional<Clock::time_point> m_acceptAgain GUARDED_BY(m_onThread);

    Semaphore m_ended{0, 0};
    std::thread m_thread;
};

}  // namespace kelm
