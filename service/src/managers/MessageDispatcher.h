#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "utils/Semaphore.h"
#include "utils/Singleton.h"
#include "utils/StepTrace.h"
#include "utils/ThreadRole.h"

namespace IPC {
class ConnectionBase;
class ConnectionUDS;
class Poller;
struct PollEvent;
}  // namespace IPC

namespace kelm {

class ClientManager;
class DeviceManagerCreator;
class GraphManager;
class EventReporter;
class InfoPrinter;
class Request;
class RequestConnection;
class ResultDispatcher;
class TaskManager;

// The front door of the service: accepts clients, reads whole messages and hands each one to the
// pool of the manager that it is for. Building it brings the service up, stopService() down.
//
// Threads: the listen thread reads every socket, and waits for no peer: what has come of a message
// stays with its connection until the rest is there. The operations below run on any. Owns: the
// listening socket, the poller and, through the connection layer, the connections of peers that
// have not registered. Borrows the managers, which outlive it.
class MessageDispatcher final : public Singleton<MessageDispatcher> {
 public:
    explicit MessageDispatcher(const char* name = "MsgDispatcher");
    ~MessageDispatcher();

    // Whether the start has succeeded.
    bool isReady() const { return m_ready; }
    // Whether there are clients.
    bool isWorking();
    // Sleeps until the last client has departed, or getNotifiedOfZeroClient() is called for another
    // reason, as the signal thread does: the caller looks again at what it waits for.
    void waitForIdleState() { m_idleSemaphore.wait(); }
    void getNotifiedOfZeroClient() { m_idleSemaphore.post(); }

    // Stops the service in bounded time, whatever clients and devices do. False if something did
    // not end: static objects are still in use then, and the process should exit without destroying
    // them.
    bool stopService();

 private:
    friend struct RequestRow;  // names the handlers

    void init();
    // Makes the listening connection, which has the number 0, so that no client ever has it.
    void reserveConnection();
    void setupService();
    void setupListenThread();
    // Ends what a start that failed has left running.
    void abandonStart();
    bool stopListenThread();

    void listenThreadRoutine();
    void handleEvents(const IPC::PollEvent& event) REQUIRES(m_onListenThread);
    void handleConnect() REQUIRES(m_onListenThread);
    // All numbers are in use: closes the connection that has waited longest for bytes of its peer,
    // if one has waited long; else turns the new peer away.
    void makeRoom() REQUIRES(m_onListenThread);
    // False when the client is to be closed.
    bool handleSocket(RequestConnection& connection, bool hungUp) REQUIRES(m_onListenThread);
    // False for a message that is no request.
    bool handleMessage(Request request) REQUIRES(m_onListenThread);
    void closeConnect(int socket) REQUIRES(m_onListenThread);
    void pauseAccepting() REQUIRES(m_onListenThread);
    // What is due by the clock: the end of a pause, and clients that hung up while they departed.
    void handleTimers() REQUIRES(m_onListenThread);
    void closeVanishedClients() REQUIRES(m_onListenThread);

    // Each writes a trace and hands the request to the pool of its manager. The trace comes first:
    // the request may be answered and destroyed as soon as it is handed over.
    void handleRegister(Request request);
    void handleUnregister(Request request);
    void handleCreateGraph(Request request);
    void handleDestroyGraph(Request request);
    void handleInferTask(Request request);
    void handleCancelTask(Request request);
    void handleQueryTaskStatus(Request request);
    void handleQueryBufferSize(Request request);
    void handleQueryStatus(Request request);
    void handleTestSendFd(Request request);
    void handleResetDevice(Request request);

    const std::string m_name;
    bool m_ready = false;             // fixed after construction
    std::atomic<bool> m_stop{false};  // atomic: set by the stopping thread, read by the listener
    Semaphore m_idleSemaphore{0, 0};
    Semaphore m_listenEnded{0, 0};
    std::thread m_listenThread;
    const StepTrace m_trace;
    DeviceManagerCreator* m_deviceManagerCreator = nullptr;
    ClientManager* m_clientManager = nullptr;
    GraphManager* m_graphManager = nullptr;
    TaskManager* m_taskManager = nullptr;
    ResultDispatcher* m_resultDispatcher = nullptr;
    InfoPrinter* m_infoPrinter = nullptr;
    EventReporter* m_eventReporter = nullptr;
    std::shared_ptr<IPC::ConnectionUDS> m_listenConnection;
    std::shared_ptr<IPC::Poller> m_poller;

    ThreadRole m_onListenThread;
    std::optional<std::chrono::steady_clock::time_point> m_acceptAgain GUARDED_BY(m_onListenThread);
    // Connections that raise no event any more, since their client asked to unregister.
    std::vector<std::weak_ptr<IPC::ConnectionBase>> m_leaving GUARDED_BY(m_onListenThread);
    std::chrono::steady_clock::time_point m_nextLook GUARDED_BY(m_onListenThread);
};

}  // namespace kelm
