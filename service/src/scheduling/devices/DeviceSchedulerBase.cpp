#include "scheduling/devices/DeviceSchedulerBase.h"

#include "config/ServiceConfigParser.h"
#include "utils/ErrorHelper.h"
#include "utils/Log.h"
#include "utils/ThreadUtils.h"

namespace kelm {

DeviceSchedulerBase::DeviceSchedulerBase(const char* name)
    : m_name(name),
      m_debugProcess(ServiceConfigParser::instance().isDeviceSchedulerDebugProcessEnabled()) {}

DeviceSchedulerBase::~DeviceSchedulerBase() {
    CR_ASSERT(!m_thread.joinable() && !m_abandoned, "scheduler destroyed under its thread");
}

void DeviceSchedulerBase::loadGraph(KelmGraph* graph) { postRequest(REQUEST_LOAD_GRAPH, graph); }

void DeviceSchedulerBase::unloadGraph(KelmGraph* graph) {
    postRequest(REQUEST_UNLOAD_GRAPH, graph);
}

void DeviceSchedulerBase::addWorker(WorkThread* worker) { postRequest(REQUEST_ADD_WORKER, worker); }

void DeviceSchedulerBase::removeWorker(WorkThread* worker) {
    postRequest(REQUEST_REMOVE_WORKER, worker);
}

void DeviceSchedulerBase::postRequest(StatusChangeRequestType type, void* data) {
    MutexLock lock(m_requestMutex);
    m_newRequests.emplace_back(type, data);
    m_requestCond.notifyOne();
}

void DeviceSchedulerBase::wake() {
    MutexLock lock(m_requestMutex);
    m_woken = true;
    m_requestCond.notifyOne();
}

void DeviceSchedulerBase::start() {
    m_thread = std::thread([this] { run(); });
}

void DeviceSchedulerBase::run() {
    m_onSchedulingThread.assertHeld();
    ThreadUtils::setName(m_name);
    ThreadUtils::saveThreadInfo(m_name);
    schedule();
    MutexLock lock(m_requestMutex);
    m_finished = true;
    m_finishedCond.notifyAll();
}

bool DeviceSchedulerBase::stop(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    {
        MutexLock lock(m_requestMutex);
        m_stop = true;
        m_requestCond.notifyOne();
        if (!m_thread.joinable()) return !m_abandoned;
        bool timely = true;
        while (!m_finished && timely) timely = m_finishedCond.waitUntil(m_requestMutex, deadline);
        m_abandoned = !m_finished;
        if (m_abandoned) {
            m_thread.detach();
            LOG_ERROR("Error: DeviceScheduler(%s) waits for a device without end, left behind",
                      m_name);
            return false;
        }
    }
    m_thread.join();
    return true;
}

void DeviceSchedulerBase::join() {
    if (!m_thread.joinable()) return;
    {
        MutexLock lock(m_requestMutex);
        m_stop = true;
        m_requestCond.notifyOne();
    }
    m_thread.join();
}

bool DeviceSchedulerBase::isAbandoned() {
    MutexLock lock(m_requestMutex);
    return m_abandoned;
}

void DeviceSchedulerBase::updateChangeRequest() {
    MutexLock lock(m_requestMutex);
    m_woken = false;
    m_takenRequests.splice(m_takenRequests.end(), m_newRequests);
}

void DeviceSchedulerBase::storeChangeRequests() {
    for (const StatusChangeRequest& request : m_takenRequests) {
        KelmGraph* const graph = static_cast<KelmGraph*>(request.getData());
        WorkThread* const worker = static_cast<WorkThread*>(request.getData());
        switch (request.getType()) {
            case REQUEST_LOAD_GRAPH:
                m_loadGraphs.insert(graph);
                break;
            case REQUEST_UNLOAD_GRAPH:
                storeUnloadRequest(graph);
                break;
            case REQUEST_ADD_WORKER:
                m_addWorkers.insert(worker);
                break;
            case REQUEST_REMOVE_WORKER:
                m_removeWorkers.insert(worker);
                break;
            default:
                LOG_ERROR("Error: Unknown StatusChangeRequestType: %d.", request.getType());
                break;
        }
    }
    m_takenRequests.clear();
}

// A load that has not come to an end is taken back without a word to its creator. The unload is
// answered all the same, or the record of the graph would stay for ever.
void DeviceSchedulerBase::storeUnloadRequest(KelmGraph* graph) {
    m_loadGraphs.erase(graph);
    m_unloadGraphs.insert(graph);
}

}  // namespace kelm
