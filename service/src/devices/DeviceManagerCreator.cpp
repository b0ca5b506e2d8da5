#include "devices/DeviceManagerCreator.h"

#include <chrono>
#include <utility>

#include "config/ServiceConfigParser.h"
#include "devices/DeviceManager.h"
#include "execution/KelmDeviceBase.h"
#include "execution/ResultSink.h"
#include "execution/WorkThread.h"
#include "protocol/src/InfoPackage.h"
#include "protocol/src/KelmError.h"
#include "records/ClientDirectory.h"
#include "records/KelmGraph.h"
#include "records/Request.h"
#include "reporting/EventListener.h"
#include "reporting/ReportPart.h"
#include "reporting/ServiceEvent.h"
#include "scheduling/devices/GraphPlacementListener.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/platform/linux/DeviceMonitorZorvanImpl.h"

namespace kelm {

namespace {

// Simulated devices in place of real ones that the configuration does not identify.
constexpr int kFakeDevicesWithoutIds = 3;
constexpr uint64_t kPoolThreads = 3;
constexpr uint64_t kCreatorPoolLimit = 20;
// Answers to questions are quick: no manager that has stopped has anything to tell.
constexpr std::chrono::seconds kPoolEndTime{3};
constexpr const char* kSource = "DeviceManagerCreator";  // of the parts of reports

void answerReset(KelmError error, Request request) {
    Port<ResultSink>::notify<&ResultSink::enqueueSendResetDeviceResponse>(error,
                                                                          std::move(request));
}

// Of all devices.
void tellReset(uint64_t clientId) {
    ServiceEvent event;
    event.action = EventAction::Reset;
    event.clientId = clientId;
    Port<EventListener>::notify<&EventListener::record>(event);
}

// Simulated devices need no bus: the machine may have none.
std::unique_ptr<DeviceMonitorImpl> createUsualImpl() {
    if (KelmDeviceBase::isFakeDeviceModeEnabled(nullptr)) return nullptr;
    return std::make_unique<DeviceMonitorZorvanImpl>();
}

}  // namespace

DeviceManagerCreator::DeviceManagerCreator(std::unique_ptr<DeviceMonitorImpl> impl)
    : m_deviceMonitor(impl ? std::move(impl) : createUsualImpl()),
      m_resets("all devices", m_resetPool, KelmDeviceBase::resetAllDevices),
      m_resetPool("DeviceReset", kCreatorPoolLimit),
      m_threadPool("ThreadPool", kPoolThreads, kCreatorPoolLimit) {
    initDeviceMonitor();
    createDeviceManager();
    launchDeviceMonitor();  // last: all managers exist before the first plug event
}

// The ports first: a scheduler or worker that is left behind must not reach this object.
DeviceManagerCreator::~DeviceManagerCreator() {
    Port<WorkerRemovalListener>::disconnect();
    Port<WorkerFailureListener>::disconnect();
    Port<StarvingGraphListener>::disconnect();
    (void)stop();  // what does not end in time is left behind, as its manager says
}

void DeviceManagerCreator::initDeviceMonitor() {
    int count = 0;
    if (KelmDeviceBase::isFakeDeviceModeEnabled(&count)) return m_deviceMonitor.setFakeMode(count);
    KelmDeviceBase::initPlatform();
    m_vendorId = ServiceConfigParser::instance().getDeviceVid();
    m_productId = ServiceConfigParser::instance().getDevicePid();
    if (m_vendorId != 0 && m_productId != 0) {
        (void)m_deviceMonitor.addDeviceFilter(m_vendorId, m_productId);  // else no device is found
        return;
    }
    LOG_WARN(
        "Warn: no zorvan device avaliable, due to invalid vendorID/productID in config file, use "
        "fake device instead.");
    // Deliberate: only the monitor is switched. The devices of these names fail to open, and the
    // service runs without a usable one.
    m_deviceMonitor.setFakeMode(kFakeDevicesWithoutIds);
}

void DeviceManagerCreator::createDeviceManager() {
    std::map<int, std::vector<std::string>> names;
    for (const DeviceDesc& desc : m_deviceMonitor.getDeviceList(m_vendorId, m_productId)) {
        names[desc.interfaceSubclass].push_back(desc.name);
    }
    for (const auto& [subclass, group] : names) {
        const auto manager = DeviceManager::create("DeviceManager" + std::to_string(subclass));
        manager->setDeviceList(subclass, group);
        m_deviceManagers[subclass] = manager;
        LOG_INFO("New device manager(%s) created with subclass(%d), deviceCount(%lu)",
                 manager->getName(), subclass, group.size());
    }
}

void DeviceManagerCreator::launchDeviceMonitor() {
    m_listenerId = m_deviceMonitor.registerListen(
        [this](const DeviceDesc& desc, DeviceMonitor::PlugType type) {
            handlePlugEvent(desc, type);
        });
    // Without it the service runs with the devices that it has found.
    if (!m_deviceMonitor.launch()) LOG_ERROR("Can not launch DeviceMonitor.");
}

// On the monitor's thread, which brings the events of all devices: the managers only queue.
void DeviceManagerCreator::handlePlugEvent(const DeviceDesc& desc, DeviceMonitor::PlugType type) {
    const int subclass = desc.interfaceSubclass;
    const std::shared_ptr<DeviceManager> manager = findManager(subclass);
    if (!manager) {
        LOG_ERROR("Error: cannot find device manager with subclass(%d)", subclass);
    } else if (type == DeviceMonitor::PLUGGED_IN) {
        (void)manager->enqueuePluginDevice(subclass, desc.name);  // the subclass is the manager's
    } else if (type == DeviceMonitor::PLUGGED_OUT) {
        (void)manager->enqueuePlugoutDevice(subclass, desc.name);
    }
}

std::shared_ptr<DeviceManager> DeviceManagerCreator::findManager(int subclass) const {
    const auto found = m_deviceManagers.find(subclass);
    return found != m_deviceManagers.end() ? found->second : nullptr;
}

// The client names the subclass, and may name one of which there is no device.
bool DeviceManagerCreator::enqueueLoadGraph(KelmGraph* graph) {
    const int subclass = graph->getInterfaceSubclass();
    if (const auto manager = findManager(subclass)) {
        manager->enqueueLoadGraph(graph);
        return true;
    }
    LOG_ERROR("Error: cannot find device manager with subclass(%d)", subclass);
    using Listener = GraphPlacementListener;
    Port<Listener>::notify<&Listener::enqueueNotifyLoadGraphDone>(graph, KELM_ERROR_INVALID_PARAM);
    return false;
}

bool DeviceManagerCreator::enqueueUnloadGraph(KelmGraph* graph) {
    const int subclass = graph->getInterfaceSubclass();
    if (const auto manager = findManager(subclass)) {
        manager->enqueueUnloadGraph(graph);
        return true;
    }
    // Deliberate: no completion follows, the result says that there is nothing to wait for.
    LOG_ERROR("Error: cannot find device manager with subclass(%d)", subclass);
    return false;
}

void DeviceManagerCreator::enqueueRemoveWorkerDone(WorkThread* worker) {
    if (const auto manager = findManager(worker->getSubclass())) {
        return manager->enqueueRemoveWorkerDone(worker);
    }
    LOG_ERROR("Error: cannot find device manager for removed worker(%s)", worker->getName());
}

void DeviceManagerCreator::enqueueWorkerFailed(WorkThread* worker) {
    const auto manager = findManager(worker->getSubclass());
    if (manager) manager->enqueueWorkerFailed(worker);
}

void DeviceManagerCreator::notifyGraphStarves(int32_t subclass) {
    if (const auto manager = findManager(subclass)) manager->notifyGraphStarves();
}

void DeviceManagerCreator::enqueueResetDevice(Request request) {
    if (!Port<ClientDirectory>::ask<&ClientDirectory::verifyRequester>(false, request)) {
        LOG_ERROR("Error: invalid clientId(%lu)", request.getClientId());
        return answerReset(KELM_ERROR_INVALID_CLIENT, std::move(request));
    }
    if (request.as<KelmMsgReqResetDevice>().resetAllDevices != 0) {
        tellReset(request.getClientId());
        return m_resets.enqueue(std::move(request));
    }
    const uint32_t deviceId = request.as<KelmMsgReqResetDevice>().deviceId;
    for (const auto& [subclass, manager] : m_deviceManagers) {
        // All managers are asked, since an id tells no subclass. The device may leave before its
        // manager looks again; then that answers.
        if (!manager->hasDevice(deviceId)) continue;
        return manager->enqueueResetDevice(std::move(request));
    }
    LOG_ERROR("Error: cannot find device manager with deviceId(%d)", deviceId);
    answerReset(KELM_ERROR_INVALID_DEVICE, std::move(request));
}

void DeviceManagerCreator::enqueueQueryDeviceStatus(const std::shared_ptr<KelmStatus>& status) {
    m_threadPool.post([this, status] { queryDeviceStatus(status); });
}

void DeviceManagerCreator::enqueueQueryDeviceScheduler(const std::shared_ptr<KelmStatus>& status) {
    m_threadPool.post([this, status] { queryDeviceScheduler(status); });
}

void DeviceManagerCreator::enqueueUpdateInfoPackage(InfoPackage* package) {
    m_threadPool.postNotice([this, package] { updateInfoPackage(package); });
}

void DeviceManagerCreator::queryDeviceStatus(const std::shared_ptr<KelmStatus>& status) {
    reportStatusPart(status, kSource, [this](KelmStatus& record) {
        for (const auto& [subclass, manager] : m_deviceManagers) manager->queryDeviceStatus(record);
    });
}

void DeviceManagerCreator::queryDeviceScheduler(const std::shared_ptr<KelmStatus>& status) {
    reportStatusPart(status, kSource, [this](KelmStatus& record) {
        // Of the first manager: all have the same.
        if (m_deviceManagers.empty()) return;
        m_deviceManagers.begin()->second->queryDeviceScheduler(record);
    });
}

void DeviceManagerCreator::updateInfoPackage(InfoPackage* package) {
    reportPackagePart(kSource, [this, package] {
        package->deviceCount = 0;  // Deliberate: no manager raises it, see writeDeviceRows()
        for (const auto& [subclass, manager] : m_deviceManagers) {
            manager->updateInfoPackage(*package);
        }
    });
}

bool DeviceManagerCreator::stop() {
    m_deviceMonitor.stop();  // first: no plug event reaches a manager that is being stopped
    m_resets.close();        // what waits is refused, or the pool would not be idle in time
    bool stopped = true;
    for (const auto& [subclass, manager] : m_deviceManagers) stopped &= manager->stop();
    stopped &= m_threadPool.waitIdleFor(kPoolEndTime);
    stopped &= m_resetPool.waitIdleFor(kPoolEndTime);
    return stopped;
}

}  // namespace kelm
