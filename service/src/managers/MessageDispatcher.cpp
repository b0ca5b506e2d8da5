#include "managers/MessageDispatcher.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <utility>

#include "config/ServiceConfigParser.h"
#include "devices/DeviceManagerCreator.h"
#include "managers/ClientManager.h"
#include "managers/EventReporter.h"
#include "managers/GraphManager.h"
#include "managers/InfoPrinter.h"
#include "managers/RequestConnection.h"
#include "managers/RequestRow.h"
#include "managers/ResultDispatcher.h"
#include "managers/TaskManager.h"
#include "protocol/src/KelmProtocol.h"
#include "records/KelmTaskParam.h"
#include "records/Request.h"
#include "reporting/MemoryInspector.h"
#include "utils/AccessController.h"
#include "utils/IPC.h"
#include "utils/Log.h"
#include "utils/MemoryReserve.h"
#include "utils/RunPaths.h"
#include "utils/StepTrace.h"
#include "utils/TextHelper.h"
#include "utils/ThreadUtils.h"
#include "utils/TimeHelper.h"

namespace kelm {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// How long the listen thread sleeps when nothing comes: with a timer under way, and without.
constexpr int kTimerMillisec = 100;
constexpr int kIdleMillisec = 10000;
// Requests that are read out of buffers before what they have begun goes on.
constexpr int kReadAhead = 16;
// After an accept that failed, or for which a place was made: the listening socket stays readable,
// and would be polled in a loop.
constexpr milliseconds kAcceptPause{100};
// A peer that sends nothing for so long may lose its place to a new one.
constexpr milliseconds kIdleLimit{5000};
constexpr milliseconds kErrorPause{10};
constexpr milliseconds kLookInterval{100};  // between two looks for peers that hung up unseen
// Limits of a stop: for the listen thread to end, the same once nothing can be read or written any
// more, and for what is queued, graphs included.
constexpr long kListenEndMillisec = 1000;
constexpr long kShutdownEndMillisec = 2000;
constexpr milliseconds kQueuesEndTime{4000};

// Managers read a text in place, up to its NUL: a text that fills its whole field gets one here.
template <size_t N>
const char* terminated(char (&field)[N]) {
    field[N - 1] = '\0';
    return field;
}

}  // namespace

MessageDispatcher::MessageDispatcher(const char* name)
    : m_name(name),
      m_trace(ServiceConfigParser::instance().isMessageDispatcherDebugProcessEnabled()) {
    init();
}

MessageDispatcher::~MessageDispatcher() {
    if (m_ready && !m_stop) stopService();
}

void MessageDispatcher::init() {
    try {
        reserveConnection();
        setupService();
        setupListenThread();
        m_infoPrinter->start();
        m_eventReporter->start();
        m_ready = true;
        LOG_INFO("Message Dispatcher initialization finished");
    } catch (const std::invalid_argument& error) {
        LOG_ERROR("%s", error.what());
    } catch (...) {
        LOG_ERROR("Please remove /var/tmp/kelm_*, and then try again.");
    }
    if (!m_ready) abandonStart();
}

// First of all: the info printer makes a connection too, and the first one gets the number 0.
void MessageDispatcher::reserveConnection() {
    m_poller = std::make_shared<IPC::Poller>();
    m_listenConnection = std::make_shared<IPC::ConnectionUDS>(m_poller.get());
}

// The order of construction is the order of the service's start, and backwards that of its end.
void MessageDispatcher::setupService() {
    m_eventReporter = &EventReporter::instance();  // first: the others have events at their end
    m_deviceManagerCreator = &DeviceManagerCreator::instance();
    m_clientManager = &ClientManager::instance();
    m_graphManager = &GraphManager::instance();
    m_taskManager = &TaskManager::instance();
    m_resultDispatcher = &ResultDispatcher::instance();
    m_infoPrinter = &InfoPrinter::instance();
    m_infoPrinter->setupListenThread();
    m_eventReporter->setupListenThread();
    (void)MemoryInspector::instance();  // registers itself
}

void MessageDispatcher::setupListenThread() {
    m_listenConnection->create(RunPaths::serviceSocket(),
                               AccessController::instance().getAccessAttribute());
    m_listenConnection->listen();
    m_listenThread = std::thread([this] { listenThreadRoutine(); });
}

void MessageDispatcher::abandonStart() {
    if (m_listenThread.joinable()) (void)stopListenThread();
    if (m_listenConnection) m_listenConnection->close();
    m_listenConnection.reset();
    m_poller.reset();
    if (m_infoPrinter != nullptr) (void)m_infoPrinter->stop();
    if (m_eventReporter != nullptr) (void)m_eventReporter->stop();
    if (m_deviceManagerCreator != nullptr) m_deviceManagerCreator->stop();
}

bool MessageDispatcher::isWorking() { return m_clientManager->isActive(); }

// The order is that of the flow of requests, against the stream: nothing new is read, then the
// clients depart, then the graphs, then the devices. Each step may rely on those behind it, and
// each has a limit, so that a device which never answers does not keep the process.
bool MessageDispatcher::stopService() {
    bool ended = stopListenThread();
    LOG_INFO("stop infoPrinter");
    const bool printerEnded = m_infoPrinter->stop();
    LOG_INFO("stop resultDispatcher");
    m_resultDispatcher->stopSendResponse();
    LOG_INFO("close epoll fd & listen fd");
    m_listenConnection->close();
    const auto deadline = steady_clock::now() + kQueuesEndTime;
    LOG_INFO("remove all clients");
    m_clientManager->removeAllClients();
    IPC::ConnectionBase::shutdownAll(SHUT_RDWR);  // also connections without a client
    LOG_INFO("remove all graphs");
    m_graphManager->removeAllGraphs();
    ended &= m_clientManager->finish(timeUntil(deadline));
    // Before any static object is destroyed: the devices' threads call into the managers.
    ended &= m_deviceManagerCreator->stop();
    // Requests of peers without a client may still be queued, and their answers need the other
    // managers.
    ended &= m_taskManager->waitIdleFor(timeUntil(deadline));
    // A package may have waited for a manager that was still at work.
    ended &= printerEnded || m_infoPrinter->stop();
    ended &= m_infoPrinter->waitIdleFor(timeUntil(deadline));
    ended &= m_eventReporter->stop();  // last, so that readers hear of the end of the others
    if (!ended) return false;  // a listen thread that was left behind may still use the rest
    m_listenConnection.reset();
    m_poller.reset();
    return ended;
}

bool MessageDispatcher::stopListenThread() {
    m_stop = true;
    m_poller->wake();
    bool ended = m_listenEnded.waitFor(kListenEndMillisec);
    if (!ended) {
        // It waits for room in a queue that is full because a client does not read its answers; the
        // shutdown ends the write to that client.
        IPC::ConnectionBase::shutdownAll(SHUT_RDWR);
        ended = m_listenEnded.waitFor(kShutdownEndMillisec);
    }
    if (ended) {
        m_listenThread.join();
    } else {
        LOG_ERROR("Error: the listen thread does not end, go on without it");
        m_listenThread.detach();
    }
    return ended;
}

void MessageDispatcher::listenThreadRoutine() {
    m_onListenThread.assertHeld();
    ThreadUtils::setName(m_name);
    ThreadUtils::saveThreadInfo(m_name);
    // A share of its own: a thread that was left behind outlives this object's.
    const OwedPools::Scope owing;
    const std::shared_ptr<IPC::Poller> poller = m_poller;
    // A message for which there is no memory ends its connection, and gives back what it held.
    const MemoryReserve::Patience patience(MemoryReserve::kNoWait);
    IPC::PollEvent event;
    for (int visit = 0; !m_stop; ++visit) {
        event.clear();
        try {
            // No message may end the thread, which would leave all clients without service.
            const bool readsAhead = visit % kReadAhead != 0 && poller->hasBuffered();
            if (!readsAhead) OwedPools::settle();
            const bool isTimed = m_acceptAgain || !m_leaving.empty();
            const int millisec = isTimed ? kTimerMillisec : kIdleMillisec;
            if (poller->wait(&event, readsAhead ? 0 : millisec)) handleEvents(event);
            handleTimers();
        } catch (const std::exception& error) {
            LOG_ERROR("Error: the listen thread goes on after: %s", error.what());
            OwedPools::handOver();
            std::this_thread::sleep_for(kErrorPause);  // a fault that stays must not take a core
        }
    }
    m_listenEnded.post();
}

// A peer that has hung up gets one more reading, for the rest of a message that is under way: what
// it has sent behind that could not be answered.
void MessageDispatcher::handleEvents(const IPC::PollEvent& event) {
    const int socket = event.connection->getSimulateFD();
    if (event.isReadable()) {
        if (event.connection == m_listenConnection) {
            handleConnect();
        } else if (!handleSocket(static_cast<RequestConnection&>(*event.connection),
                                 event.isHungUp())) {
            closeConnect(socket);
            return;
        }
    }
    if (event.isHungUp()) closeConnect(socket);
}

void MessageDispatcher::handleConnect() {
    try {
        auto connection = RequestConnection::tryMake(m_poller.get());
        if (!connection) return makeRoom();
        connection->accept(m_listenConnection.get());
        IPC::ConnectionBase::adopt(connection);
        LOG_DEBUG("accept new connection: %d", connection->getSimulateFD());
    } catch (const std::exception& error) {
        LOG_ERROR("Error: a client cannot be accepted: %s", error.what());
        pauseAccepting();
    }
}

void MessageDispatcher::makeRoom() {
    std::shared_ptr<IPC::ConnectionBase> idle;
    auto idleSince = steady_clock::time_point::max();
    for (auto& connection : IPC::ConnectionBase::getAll()) {
        auto* const client = dynamic_cast<RequestConnection*>(connection.get());
        const auto since = client != nullptr ? client->idleSince(kIdleLimit) : std::nullopt;
        // The one silent for the longest time: the youngest may be just about to send.
        if (!since || *since >= idleSince) continue;
        idleSince = *since;
        idle = std::move(connection);
    }
    if (idle) {
        LOG_WARN("Warn: all %d connections are in use, socket %d makes room: it sends nothing",
                 IPC::IPC_CONN_FD_MAX, idle->getSimulateFD());
        closeConnect(idle->getSimulateFD());
    } else {
        LOG_ERROR("Error: all %d connections are in use, a client is turned away",
                  IPC::IPC_CONN_FD_MAX);
        m_listenConnection->refuse();
    }
    // Also after a close: the number of a connection with clients is free only when their records
    // are destroyed.
    pauseAccepting();
}

void MessageDispatcher::pauseAccepting() {
    m_listenConnection->blockPoller();
    m_acceptAgain = steady_clock::now() + kAcceptPause;
}

// At most one message a visit, so that a peer which writes without pause does not delay the others.
// False closes the connection: behind a record that cannot be read nothing can be told apart.
bool MessageDispatcher::handleSocket(RequestConnection& connection, bool hungUp) {
    const int socket = connection.getSimulateFD();
    const auto state = connection.receive(hungUp);
    if (state == MessageAssembler::State::kWaiting) return true;
    if (state == MessageAssembler::State::kFailed) {
        LOG_INFO("failed to receive kelm message from socket (%d)", socket);
        return false;
    }
    return handleMessage(Request(connection.takeRequest(), socket));
}

bool MessageDispatcher::handleMessage(Request request) {
    const RequestRow* const row = RequestRow::find(request.getType());
    if (row == nullptr) {
        LOG_ERROR("Error: invalid message type (%d)", request.getType());
        (void)request.take();  // a message that is no request is owed no answer
        return false;
    }
    // Those that have no use for descriptors may wait long.
    if (request.getType() != KELM_MESSAGE_INFER_TASK_REQ) {
        kelmCloseDescriptors(request.getMessage());
    }
    (this->*row->handle)(std::move(request));
    return true;
}

void MessageDispatcher::handleRegister(Request request) {
    auto& asked = request.as<KelmMsgReqRegister>();
    const int socket = request.getSocket();
    // In place: the manager reads the name there.
    const char* name = terminated(asked.clientName);
    if (const auto connection = IPC::ConnectionBase::findConnection(socket)) {
        connection->setUser(escapeControls(name));  // so that errors of the socket name the client
    }
    LOG_STEP("enqueue register request(reqSeqNo=%lu): clientName=%s socket=%d userParam=%p",
             asked.head.reqSeqNo, escapeControls(name), socket, request.getMessage());
    m_clientManager->enqueueRegisterClient(std::move(request));
}

// What the client sends behind this request is not read: its record may be destroyed by then.
void MessageDispatcher::handleUnregister(Request request) {
    m_onListenThread.assertHeld();
    const int socket = request.getSocket();
    LOG_STEP("remove socket %d from listening list", socket);
    if (const auto connection = IPC::ConnectionBase::findConnection(socket)) {
        m_leaving.push_back(connection);  // first: it may find no memory
        // Deliberate: for the rest of the connection's life, also if the client is unknown.
        connection->blockPoller();
    }
    LOG_STEP("enqueue unregister request(reqSeqNo=%lu): client=%lu socket=%d userParam=%p",
             request.as<KelmMsgReq>().reqSeqNo, request.getClientId(), socket,
             request.getMessage());
    m_clientManager->enqueueUnregisterClient(std::move(request));
}

void MessageDispatcher::handleCreateGraph(Request request) {
    auto& asked = request.as<KelmMsgReqCreateGraph>();
    const char* name = terminated(asked.graphName);
    terminated(asked.graphTag);
    terminated(asked.streamId);
    const char* path = terminated(asked.graphPath);
    if (asked.graphData == 0) {
        LOG_STEP(
            "enqueue create graph request(reqSeqNo=%lu): client=%lu graphPath=%s graphName=%s "
            "subclass=%d expectDevices=%d socket=%d userParam=%p",
            asked.head.reqSeqNo, asked.clientId, escapeControls(path), escapeControls(name),
            asked.subclass, asked.expectDevices, request.getSocket(), request.getMessage());
    } else {
        LOG_STEP(
            "enqueue create graph request(reqSeqNo=%lu): client=%lu graphDataSize=%lu graphName=%s "
            "subclass=%d expectDevices=%d socket=%d userParam=%p",
            asked.head.reqSeqNo, asked.clientId, static_cast<uint64_t>(asked.graphDataSize),
            escapeControls(name), asked.subclass, asked.expectDevices, request.getSocket(),
            request.getMessage());
    }
    m_graphManager->enqueueCreateGraph(std::move(request));
}

void MessageDispatcher::handleDestroyGraph(Request request) {
    const auto& asked = request.as<KelmMsgReqDestroyGraph>();
    LOG_STEP(
        "enqueue destroy graph request(reqSeqNo=%lu): client=%lu graph=%lu socket=%d "
        "userParam=%p",
        asked.head.reqSeqNo, asked.clientId, asked.graphId, request.getSocket(),
        request.getMessage());
    // Here, on the thread that reads: an unregister request behind this one finds the record kept.
    m_clientManager->keepUntilAnswered(request);
    m_graphManager->enqueueDestroyGraph(std::move(request));
}

void MessageDispatcher::handleInferTask(Request request) {
    auto& asked = request.as<KelmMsgReqInferTask>();
    KelmBuffer input;
    KelmBuffer output;
    KelmBuffer aux;
    // Takes the descriptors out of the message: from here on the task's parameters close them.
    takeTaskBuffers(asked, input, output, aux);
    for (KelmBuffer* buffer : {&input, &output, &aux}) terminated(buffer->name);
    std::unique_ptr<KelmTaskParam> param(
        KelmTaskParam::create(input, output, aux, kelmGetPeer(*request.getMessage())));
    param->setOutputBufferProvided(true);
    param->setAuxBufferProvided(true);
    LOG_DEBUG("[TrackFd] create: clientId=%lu graphId=%lu inFd=%d outFd=%d auxFd=%d",
              asked.clientId, asked.graphId, input.fd, output.fd, aux.fd);
    LOG_STEP(
        "enqueue infer task request(reqSeqNo=%lu): client=%lu graph=%lu socket=%d userParam=%p",
        asked.head.reqSeqNo, asked.clientId, asked.graphId, request.getSocket(),
        request.getMessage());
    m_taskManager->enqueueCreateTask(std::move(request), std::move(param));
}

void MessageDispatcher::handleCancelTask(Request request) {
    const auto& asked = request.as<KelmMsgReqCancelTask>();
    LOG_STEP(
        "enqueue cancel task request(reqSeqNo=%lu): client=%lu task=%lu socket=%d "
        "userParam=%p",
        asked.head.reqSeqNo, asked.clientId, asked.taskId, request.getSocket(),
        request.getMessage());
    m_taskManager->enqueueCancelTask(std::move(request));
}

void MessageDispatcher::handleQueryTaskStatus(Request request) {
    const auto& asked = request.as<KelmMsgReqQueryTaskStatus>();
    LOG_STEP(
        "enqueue query task status request(reqSeqNo=%lu): client=%lu task=%lu socket=%d "
        "userParam=%p",
        asked.head.reqSeqNo, asked.clientId, asked.taskId, request.getSocket(),
        request.getMessage());
    m_taskManager->enqueueQueryTaskStatus(std::move(request));
}

void MessageDispatcher::handleQueryBufferSize(Request request) {
    const auto& asked = request.as<KelmMsgReqQueryBufferSize>();
    LOG_STEP(
        "enqueue query graph buffer size request(reqSeqNo=%lu): client=%lu graph=%lu "
        "socket=%d userParam=%p",
        asked.head.reqSeqNo, asked.clientId, asked.graphId, request.getSocket(),
        request.getMessage());
    m_clientManager->keepUntilAnswered(request);
    m_graphManager->enqueueQueryBufferSize(std::move(request));
}

void MessageDispatcher::handleQueryStatus(Request request) {
    m_clientManager->keepUntilAnswered(request);
    m_infoPrinter->enqueueQueryStatus(std::move(request));
}

// Only proves that a descriptor comes through: there is nothing to do and no answer.
void MessageDispatcher::handleTestSendFd(Request /*request*/) {}

void MessageDispatcher::handleResetDevice(Request request) {
    const auto& asked = request.as<KelmMsgReqResetDevice>();
    LOG_STEP(
        "enqueue reset device request(reqSeqNo=%lu): client=%lu deviceId=%u "
        "resetAllDevices=%d socket=%d userParam=%p",
        asked.head.reqSeqNo, asked.clientId, asked.deviceId, asked.resetAllDevices,
        request.getSocket(), request.getMessage());
    m_deviceManagerCreator->enqueueResetDevice(std::move(request));
}

// Blocked first: until its last record is destroyed the connection stays open, and would be
// reported as hung up without pause.
void MessageDispatcher::closeConnect(int socket) {
    // Nothing would come back to a connection whose events are blocked.
    const MemoryReserve::Patience patience(MemoryReserve::kUsualWait);
    LOG_STEP("block IPC connection(socket=%d)", socket);
    if (const auto connection = IPC::ConnectionBase::findConnection(socket)) {
        connection->blockPoller();
    }
    LOG_STEP("close Client(socket=%d)", socket);
    m_clientManager->closeClient(socket);
}

void MessageDispatcher::handleTimers() {
    MemoryReserve::renew();
    const auto now = steady_clock::now();
    if (m_acceptAgain && now >= *m_acceptAgain) {
        m_listenConnection->unblockPoller();
        m_acceptAgain.reset();  // last: when that fails, the next turn tries again
    }
    if (m_leaving.empty() || now < m_nextLook) return;
    m_nextLook = now + kLookInterval;
    closeVanishedClients();
}

// A connection whose events are blocked does not tell when its peer hangs up. Without this look,
// one whose peer asked to unregister an id that is not its own would never be closed.
void MessageDispatcher::closeVanishedClients() {
    std::vector<std::weak_ptr<IPC::ConnectionBase>> stillThere;
    for (const auto& leaving : m_leaving) {
        const auto connection = leaving.lock();
        if (!connection) continue;  // while it is held its number is its own
        pollfd state{connection->nativeHandle(), 0, 0};
        // One that is shut down may still have clients: a sender that cannot write does no more.
        if (!connection->connected() ||
            (::poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLNVAL)) != 0)) {
            closeConnect(connection->getSimulateFD());
        } else {
            stillThere.push_back(leaving);
        }
    }
    m_leaving.swap(stillThere);
}

}  // namespace kelm
