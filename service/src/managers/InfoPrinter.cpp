#include "managers/InfoPrinter.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <system_error>
#include <utility>

#include "config/ServiceConfigParser.h"
#include "devices/DeviceManagerCreator.h"
#include "managers/ClientManager.h"
#include "managers/GraphManager.h"
#include "managers/ResultDispatcher.h"
#include "managers/TaskManager.h"
#include "protocol/src/InfoPackage.h"
#include "records/Request.h"
#include "reporting/KelmStatus.h"
#include "reporting/MemoryInspector.h"
#include "reporting/PrintInfoListener.h"
#include "reporting/SnapshotServer.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/RunPaths.h"
#include "utils/StepTrace.h"
#include "utils/ThreadUtils.h"

namespace kelm {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kThreadEndTime{1000};  // for each of the two threads
// What stands in for an interval of 0, which must not take a core.
constexpr milliseconds kShortestPause{100};

seconds readInterval() {
    const int millisec = bounded("debug_settings.info_printer.print_interval",
                                 ServiceConfigParser::instance().getInfoPrintInterval());
    // Deliberate: the rest is cut, so that less than a second means no waiting.
    return seconds(millisec / 1000);
}

using StatusPtr = std::shared_ptr<KelmStatus>;

// A status record with the query that it answers.
struct KelmStatusExtend : KelmStatus {
    Request request;
    // Atomic: lowered on the thread of each part. The first one is the query's own, so that quick
    // managers do not send the answer before all parts are asked for.
    std::atomic<uint8_t> pendingParts{1};
};

// The managers that fill the record, and for which bits of the query's type.
struct StatusPart {
    uint64_t bits;
    void (*post)(const StatusPtr& status);
};
constexpr StatusPart kStatusParts[] = {
    {kQueryAll,
     [](const StatusPtr& status) { ResultDispatcher::instance().enqueueQueryServiceFps(status); }},
    {kQueryAll | kQueryDevices,
     [](const StatusPtr& status) {
         DeviceManagerCreator::instance().enqueueQueryDeviceStatus(status);
     }},
    {kQueryAll | kQueryGraphs,
     [](const StatusPtr& status) { GraphManager::instance().enqueueQueryGraphStatus(status); }},
    {kQueryAll | kQueryClients,
     [](const StatusPtr& status) { ClientManager::instance().enqueueQueryClientStatus(status); }},
    {kQuerySchedulers,
     [](const StatusPtr& status) {
         DeviceManagerCreator::instance().enqueueQueryDeviceScheduler(status);
     }},
    {kQuerySchedulers,
     [](const StatusPtr& status) { TaskManager::instance().enqueueQueryTaskScheduler(status); }},
};
constexpr uint64_t kKnownBits =
    kQueryAll | kQueryDevices | kQueryGraphs | kQueryClients | kQuerySchedulers;

// The managers that write a section of the package. A full queue must not hold these up: the
// tools' thread would wait at it with the package on its stack.
constexpr void (*kPackageParts[])(InfoPackage* package) = {
    [](InfoPackage* package) { ClientManager::instance().enqueueUpdateInfoPackage(package); },
    [](InfoPackage* package) {
        DeviceManagerCreator::instance().enqueueUpdateInfoPackage(package);
    },
    [](InfoPackage* package) { GraphManager::instance().enqueueUpdateInfoPackage(package); },
};
constexpr int kPackagePartNum = std::size(kPackageParts);

}  // namespace

InfoPrinter::InfoPrinter(const char* name)
    : m_name(name),
      m_interval(readInterval()),
      m_trace(ServiceConfigParser::instance().isInfoPrinterDebugProcessEnabled()),
      m_pool("InfoPrinter", 100) {
    m_mainThread = std::thread([this] { mainThreadRoutine(); });
}

InfoPrinter::~InfoPrinter() {
    (void)stop();
    m_snapshotServer.reset();  // its last package needs the reports
    if (m_mainThread.joinable()) m_mainThread.join();
    Port<InfoCollector>::disconnect();
}

void InfoPrinter::setupListenThread() {
    m_snapshotServer = std::make_unique<SnapshotServer>(
        RunPaths::snapshotSocket(), [this](InfoPackage& package) { collectInfoPackage(&package); },
        m_trace, SnapshotServer::Limits{});
}

void InfoPrinter::start() {
    {
        MutexLock lock(m_mutex);
        m_started = true;
    }
    m_stateCond.notifyAll();
    // Only now: the request of a tool would otherwise build managers, in an order of its own.
    if (m_snapshotServer) m_snapshotServer->start();
}

bool InfoPrinter::stop() {
    {
        MutexLock lock(m_mutex);
        m_stop = true;
    }
    m_stateCond.notifyAll();
    bool ended = !m_mainThread.joinable();
    if (!ended && m_mainEnded.waitFor(kThreadEndTime.count())) {
        m_mainThread.join();
        ended = true;
    }
    if (!ended) LOG_ERROR("Error: a print listener does not return, go on without the printer");
    if (m_snapshotServer && !m_snapshotServer->stop(kThreadEndTime)) {
        LOG_ERROR("Error: an info package is not filled, go on without the snapshot server");
        ended = false;
    }
    return ended;
}

bool InfoPrinter::isStopped() {
    MutexLock lock(m_mutex);
    return m_stop;
}

int InfoPrinter::getPrintIntervalMillisec() const {
    return static_cast<int>(milliseconds(m_interval).count());
}

bool InfoPrinter::registerListener(PrintInfoListener* listener) {
    if (listener == nullptr) return false;
    MutexLock lock(m_listenersMutex);
    if (std::find(m_listeners.begin(), m_listeners.end(), listener) != m_listeners.end()) {
        return false;
    }
    m_listeners.push_back(listener);
    return true;
}

void InfoPrinter::unregisterListener(PrintInfoListener* listener) {
    MutexLock lock(m_listenersMutex);
    std::erase(m_listeners, listener);
}

void InfoPrinter::mainThreadRoutine() {
    ThreadUtils::setName(m_name);
    ThreadUtils::saveThreadInfo(m_name);
    if (waitForStart()) {
        while (waitForNextPass()) printInfo();
    }
    m_mainEnded.post();
}

bool InfoPrinter::waitForStart() {
    MutexLock lock(m_mutex);
    while (!m_started && !m_stop) m_stateCond.wait(m_mutex);
    return !m_stop;
}

bool InfoPrinter::waitForNextPass() {
    const milliseconds pause = m_interval > seconds(0) ? m_interval : kShortestPause;
    const auto deadline = std::chrono::steady_clock::now() + pause;
    MutexLock lock(m_mutex);
    while (!m_stop && m_stateCond.waitUntil(m_mutex, deadline)) {
    }
    return !m_stop;
}

void InfoPrinter::printInfo() {
    // Held across the calls: unregisterListener() returns only when no call of the listener runs,
    // after which its owner may destroy it.
    MutexLock lock(m_listenersMutex);
    for (PrintInfoListener* listener : m_listeners) {
        try {
            listener->onPrintInfo();
        } catch (const std::exception& error) {
            LOG_ERROR("PrintInfoListener(%p)->onPrintInfo got an exception: %s", listener,
                      error.what());
        }
    }
}

void InfoPrinter::enqueueQueryStatus(Request request) {
    m_pool.post(
        [this, request = std::move(request)]() mutable { queryStatus(std::move(request)); });
}

void InfoPrinter::queryStatus(Request request) {
    const uint64_t queryType = request.as<KelmMsgReqQueryStatus>().queryType;
    if ((queryType & kKnownBits) == 0 || isStopped()) return;
    const auto status = std::make_shared<KelmStatusExtend>();
    status->request = std::move(request);
    for (const StatusPart& part : kStatusParts) {
        if ((queryType & part.bits) == 0) continue;
        status->pendingParts.fetch_add(1);
        try {
            part.post(status);
        } catch (const std::exception& error) {
            LOG_ERROR("Error: a part of the status is left empty: %s", error.what());
            queryStatusDone(status);
        }
    }
    queryStatusDone(status);
}

void InfoPrinter::enqueueQueryStatusDone(const StatusPtr& status, const std::string& /*source*/) {
    m_pool.postNotice([this, status] { queryStatusDone(status); });
}

void InfoPrinter::queryStatusDone(const StatusPtr& status) {
    const auto query = std::dynamic_pointer_cast<KelmStatusExtend>(status);
    if (!query) {
        LOG_ERROR(
            "Error: std::dynamic_pointer_cast<KelmStatusExtend>(status) failed, errno = %d[%s].",
            errno, std::generic_category().message(errno));
        return;
    }
    if (query->pendingParts.fetch_sub(1) != 1 || isStopped()) return;
    ResultDispatcher::instance().enqueueSendQueryStatusResponse(status, std::move(query->request));
}

void InfoPrinter::collectInfoPackage(InfoPackage* package) {
    m_packageParts.resetValue(1 - kPackagePartNum);
    std::memset(static_cast<void*>(package), 0, sizeof(*package));  // padding is sent too
    // First: nothing may throw between the questions and the wait for the answers.
    MemoryInspector::instance().updateInfoPackage(package);
    for (const auto& enqueueUpdate : kPackageParts) {
        try {
            enqueueUpdate(package);
        } catch (const std::exception& error) {
            LOG_ERROR("Error: a part of the info package is left empty: %s", error.what());
            m_packageParts.post();
        }
    }
    // Without limit: the package is on the stack of this thread, and a manager may still be writing
    // into it.
    m_packageParts.wait();
}

void InfoPrinter::enqueueUpdateInfoPackageDone(const std::string& source) {
    LOG_STEP("enqueueUpdateInfoPackageDone: %s", source);
    m_packageParts.post();
}

}  // namespace kelm
