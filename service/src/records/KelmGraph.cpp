#include "records/KelmGraph.h"

#include <cstring>
#include <new>
#include <optional>
#include <utility>

#include "config/ServiceConfigParser.h"
#include "records/ClientDirectory.h"
#include "utils/CommonHelper.h"
#include "utils/Digest.h"
#include "utils/FileHelper.h"
#include "utils/Log.h"
#include "utils/Port.h"

namespace kelm {

namespace {

const char* orUnnamed(const char* name) { return name != nullptr ? name : "unnamed"; }

UniqueMalloc<char> copyBlob(const char* buffer, uint64_t size) {
    if (buffer == nullptr || size == 0) return nullptr;
    UniqueMalloc<char> data(static_cast<char*>(std::malloc(size)));
    if (!data) throw std::bad_alloc();
    std::memcpy(data.get(), buffer, size);
    return data;
}

}  // namespace

KelmGraph::KelmGraph(uint64_t id, uint64_t clientId, const char* name, int32_t expectDeviceNumber)
    : m_id(id),
      m_expectDeviceNumber(expectDeviceNumber),
      m_name(orUnnamed(name)),
      m_fpsIn("KelmGraph", orUnnamed(name), "FpsIn"),
      m_fpsOut("KelmGraph", orUnnamed(name), "FpsOut"),
      m_originalName(orUnnamed(name)) {
    const int window = ServiceConfigParser::instance().getFpsBufferTimeLength();
    m_fpsIn.m_bufferTimeMs = window;
    m_fpsOut.m_bufferTimeMs = window;
    m_users[clientId] = m_originalName;
}

KelmGraph::KelmGraph(uint64_t id, uint64_t clientId, const char* path, const char* name,
                     int32_t expectDeviceNumber)
    : KelmGraph(id, clientId, name, expectDeviceNumber) {
    m_path = path;
    calculateGraphHash();
}

KelmGraph::KelmGraph(uint64_t id, uint64_t clientId, const char* buffer, uint64_t size,
                     const char* name, int32_t expectDeviceNumber)
    : KelmGraph(id, clientId, name, expectDeviceNumber) {
    setBlob(copyBlob(buffer, size), size);
    calculateGraphHash();
}

KelmGraph::KelmGraph(uint64_t id, uint64_t clientId, const char* path, UniqueMalloc<char> data,
                     uint64_t size, std::string hash, const char* name, int32_t expectDeviceNumber)
    : KelmGraph(id, clientId, name, expectDeviceNumber) {
    m_path = path;
    m_hash = std::move(hash);
    setBlob(std::move(data), size);
}

KelmGraph::~KelmGraph() = default;

void KelmGraph::setBlob(UniqueMalloc<char> data, uint64_t size) {
    m_data = std::move(data);
    m_dataSize = m_data ? size : 0;
    setMemReq(static_cast<uint32_t>(m_dataSize >> kMegabyteShift));
}

void KelmGraph::calculateGraphHash() {
    if (!m_data && !m_path.empty()) {
        unsigned long size = 0;
        UniqueMalloc<char> data(FileHelper::readFile(m_path.c_str(), &size));
        setBlob(std::move(data), size);
    }
    m_hash = sha256ForBuffer(m_data.get(), m_dataSize);
}

std::string KelmGraph::getName() {
    MutexLock lock(m_mutex);
    return m_name;
}

int32_t KelmGraph::getMaxGraphNumPerDevice() {
    MutexLock lock(m_mutex);
    return m_maxGraphNumPerDevice;
}

uint32_t KelmGraph::getMemReq() {
    MutexLock lock(m_mutex);
    return m_memReq;
}

uint32_t KelmGraph::getNumWaitTasks() {
    MutexLock lock(m_mutex);
    return m_numWaitTasks;
}

int32_t KelmGraph::getRunningDeviceNum() {
    MutexLock lock(m_mutex);
    return static_cast<int32_t>(m_runningDevices.size());
}

int32_t KelmGraph::getCachedDeviceNum() {
    MutexLock lock(m_mutex);
    return static_cast<int32_t>(m_cachedDevices.size());
}

uint32_t KelmGraph::getLoadFailCount() {
    MutexLock lock(m_mutex);
    return m_loadFailCount;
}

uint32_t KelmGraph::getOutCycleNum() {
    MutexLock lock(m_mutex);
    return m_outCycleNum;
}

void KelmGraph::setTag(const char* tag) {
    if (tag != nullptr) m_tag = tag;
}

void KelmGraph::setStreamId(const char* streamId) {
    if (streamId != nullptr) m_streamId = streamId;
}

void KelmGraph::setMaxGraphNumPerDevice(int32_t number) {
    if (number < 1) return;
    MutexLock lock(m_mutex);
    m_maxGraphNumPerDevice = number;
}

void KelmGraph::setMemReq(uint32_t megabytes) {
    MutexLock lock(m_mutex);
    m_memReq = megabytes;
}

void KelmGraph::increaseLoadFailCount() {
    MutexLock lock(m_mutex);
    ++m_loadFailCount;
}

void KelmGraph::appendName(uint64_t clientId, const char* name) {
    MutexLock lock(m_mutex);
    m_users[clientId] = orUnnamed(name);
}

bool KelmGraph::removeUser(uint64_t clientId) {
    MutexLock lock(m_mutex);
    return m_users.erase(clientId) > 0;
}

bool KelmGraph::isRunning() {
    MutexLock lock(m_mutex);
    return !m_users.empty();
}

std::vector<std::string> KelmGraph::getClientNames() {
    std::vector<uint64_t> clientIds;
    {
        MutexLock lock(m_mutex);
        for (const auto& user : m_users) clientIds.push_back(user.first);
    }
    std::vector<std::string> names;
    for (const uint64_t clientId : clientIds) {
        auto name = Port<ClientDirectory>::ask<&ClientDirectory::getClientName>(
            std::optional<std::string>{}, clientId);
        if (name) names.push_back(std::move(*name));
    }
    return names;
}

void KelmGraph::spliceGraphName() {
    MutexLock lock(m_mutex);
    if (m_users.empty()) return;
    std::string names;
    for (const auto& user : m_users) names += user.second + ";";
    names.pop_back();
    m_name = std::move(names);
}

void KelmGraph::appendRunningDevice(const std::string& device) {
    MutexLock lock(m_mutex);
    m_runningDevices.insert(device);
}

void KelmGraph::removeRunningDevice(const std::string& device) {
    MutexLock lock(m_mutex);
    m_runningDevices.erase(device);
}

void KelmGraph::appendCachedDevice(const std::string& device) {
    MutexLock lock(m_mutex);
    m_cachedDevices.insert(device);
}

void KelmGraph::removeCachedDevice(const std::string& device) {
    MutexLock lock(m_mutex);
    m_cachedDevices.erase(device);
}

void KelmGraph::setPendingState(bool pending) {
    MutexLock lock(m_mutex);
    if (!pending) {
        m_outCycleNum = 0;
    } else if (!m_isPending) {
        m_startPendingTime = std::chrono::system_clock::now();
    } else {
        ++m_outCycleNum;
    }
    m_isPending = pending;
}

bool KelmGraph::isPending() {
    MutexLock lock(m_mutex);
    return m_isPending;
}

bool KelmGraph::getStartPendingTime(TimePoint& time) {
    MutexLock lock(m_mutex);
    if (!m_isPending) return false;
    time = m_startPendingTime;
    return true;
}

}  // namespace kelm
