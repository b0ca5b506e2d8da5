#include "execution/KelmDeviceBase.h"
#include "records/KelmGraph.h"

namespace kelm {

void KelmDeviceBase::setCurrentGraph(KelmGraph* graph) {
    const std::string name = graph->getName();
    MutexLock lock(m_graphInfoMutex);
    m_currentGraph = graph;
    m_currentGraphName = name;
    m_currentGraphLoadTime = std::chrono::system_clock::now();
    m_currentInferenceCount = 0;
}

void KelmDeviceBase::resetGraphInfo() {
    MutexLock lock(m_graphInfoMutex);
    if (m_currentGraph == nullptr) return;
    m_currentGraph = nullptr;
    m_fpsCounter.reset();
    m_utilizationCounter.reset();
    m_previousGraphName = m_currentGraphName;
    m_previousGraphLoadTime = m_currentGraphLoadTime;
    m_previousInferenceCount = m_currentInferenceCount;
    m_previousGraphUnloadTime = std::chrono::system_clock::now();
}

void KelmDeviceBase::countResult() {
    MutexLock lock(m_graphInfoMutex);
    m_fpsCounter.update();
    ++m_currentInferenceCount;
    if (m_currentGraph != nullptr) m_currentGraph->increaseInferenceTimes();
}

void KelmDeviceBase::increaseCacheTaskNum() {
    MutexLock lock(m_graphInfoMutex);
    if (m_cacheTaskNum == 0) m_utilizationCounter.start();
    ++m_cacheTaskNum;
}

void KelmDeviceBase::decreaseCacheTaskNum() {
    MutexLock lock(m_graphInfoMutex);
    if (m_cacheTaskNum == 1) m_utilizationCounter.stop();
    --m_cacheTaskNum;
}

std::vector<KelmGraph*> KelmDeviceBase::getCachedGraphList() {
    KelmGraph* const graph = getCurrentGraph();
    if (graph == nullptr) return {};
    return {graph};
}

std::vector<std::string> KelmDeviceBase::getCachedGraphNames() {
    MutexLock lock(m_graphInfoMutex);
    if (m_currentGraph == nullptr) return {};
    return {m_currentGraphName};
}

KelmGraph* KelmDeviceBase::getCurrentGraph() {
    MutexLock lock(m_graphInfoMutex);
    return m_currentGraph;
}

std::string KelmDeviceBase::getCurrentGraphName() {
    MutexLock lock(m_graphInfoMutex);
    return m_currentGraph != nullptr ? m_currentGraphName : std::string();
}

std::string KelmDeviceBase::getPreviousGraphName() {
    MutexLock lock(m_graphInfoMutex);
    return m_previousGraphName;
}

uint32_t KelmDeviceBase::getCurrentInferenceCount() {
    MutexLock lock(m_graphInfoMutex);
    return m_currentGraph != nullptr ? m_currentInferenceCount : 0;
}

uint32_t KelmDeviceBase::getPreviousInferenceCount() {
    MutexLock lock(m_graphInfoMutex);
    return m_previousGraphName.empty() ? 0 : m_previousInferenceCount;
}

bool KelmDeviceBase::getCurrentGraphLoadTime(TimePoint& time) {
    MutexLock lock(m_graphInfoMutex);
    if (m_currentGraph == nullptr) return false;
    time = m_currentGraphLoadTime;
    return true;
}

bool KelmDeviceBase::getPreviousGraphLoadTime(TimePoint& time) {
    MutexLock lock(m_graphInfoMutex);
    if (m_previousGraphName.empty()) return false;
    time = m_previousGraphLoadTime;
    return true;
}

bool KelmDeviceBase::getPreviousGraphUnloadTime(TimePoint& time) {
    MutexLock lock(m_graphInfoMutex);
    if (m_previousGraphName.empty()) return false;
    time = m_previousGraphUnloadTime;
    return true;
}

float KelmDeviceBase::getFps() {
    if (m_deviceFailed) return 0.0f;
    MutexLock lock(m_graphInfoMutex);
    return m_fpsCounter.getFps();
}

float KelmDeviceBase::getDeviceUtilization() {
    if (m_deviceFailed) return 0.0f;
    return m_utilizationCounter.getUtilization();
}

}  // namespace kelm
