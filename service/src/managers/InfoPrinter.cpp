#include "managers/InfoPrinter.h"

#include <algorithm>

#include "config/ServiceConfigParser.h"
#include "reporting/PrintInfoListener.h"
#include "reporting/SnapshotServer.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/RunPaths.h"
#include "utils/ThreadUtils.h"

namespace kelm {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kThreadEndTime{1000};  // for each of the two threads
// What stands in for an interval of 0, which must not take a core.
constexpr milliseconds kShortestPause{100};

seconds readInterval() {
    const int millisec = ServiceConfigParser::instance().getInfoPrintInterval();
    // Deliberate: the rest is cut, so that less than a second means no waiting.
    return millisec > 0 ? seconds(millisec / 1000) : seconds(5);
}

}  // namespace

InfoPrinter::InfoPrinter(const char* name)
    : m_name(name),
      m_interval(readInterval()),
      m_debugProcess(ServiceConfigParser::instance().isInfoPrinterDebugProcessEnabled()),
      m_pool("InfoPrinter", 1, 100) {
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
        m_debugProcess, SnapshotServer::Limits{});
}

void InfoPrinter::start() {
    {
        MutexLock lock(m_mutex);
        m_started = true;
    }
    m_stateCond.notifyAll();
    // Only now: a tool must not be the one for whom the managers are built.
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
    // Held across the calls, so that who has unregistered is not called any more.
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

}  // namespace kelm
