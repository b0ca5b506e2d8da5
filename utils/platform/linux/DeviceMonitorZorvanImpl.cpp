#include "utils/platform/linux/DeviceMonitorZorvanImpl.h"

#include <libusb.h>
#include <sys/time.h>

#include <array>
#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "utils/DeviceMonitor.h"
#include "utils/Log.h"

namespace kelm {

namespace {

constexpr int kMaxPorts = 64;
constexpr int kUnknownSubclass = -1;
constexpr time_t kPollSeconds = 5;
// An error that stays would fill the log.
constexpr std::chrono::milliseconds kPauseAfterError{100};

// The bus and the ports on the way, "1.2.3"; empty for a chain too long to be told.
std::string getDeviceName(libusb_device* device) {
    std::array<uint8_t, kMaxPorts> ports{};
    const int count = libusb_get_port_numbers(device, ports.data(), kMaxPorts);
    if (count < 0) return {};
    std::string name = std::to_string(libusb_get_bus_number(device));
    for (int i = 0; i < count; ++i) name += "." + std::to_string(ports[static_cast<size_t>(i)]);
    return name;
}

int getInterfaceSubclass(libusb_device* device) {
    libusb_config_descriptor* config = nullptr;
    if (libusb_get_config_descriptor(device, 0, &config) != LIBUSB_SUCCESS) return kUnknownSubclass;
    const bool known = config->bNumInterfaces > 0 && config->interface[0].num_altsetting > 0;
    const int subclass =
        known ? config->interface[0].altsetting[0].bInterfaceSubClass : kUnknownSubclass;
    libusb_free_config_descriptor(config);
    return subclass;
}

// Nothing for a device that does not say what it is or has no name.
std::optional<DeviceDesc> describe(libusb_device* device) {
    libusb_device_descriptor descriptor{};
    if (libusb_get_device_descriptor(device, &descriptor) != LIBUSB_SUCCESS) return std::nullopt;
    std::string name = getDeviceName(device);
    if (name.empty()) return std::nullopt;
    return DeviceDesc{std::move(name), descriptor.idVendor, descriptor.idProduct,
                      getInterfaceSubclass(device)};
}

constexpr int kStayRegistered = 0;

// On the monitor's thread, inside the library: the listeners only queue.
int usb_arrived_callback(libusb_context*, libusb_device* device, libusb_hotplug_event,
                         void* parent) {
    const auto desc = describe(device);
    if (parent != nullptr && desc) static_cast<DeviceMonitor*>(parent)->notifyPluginDevice(*desc);
    return kStayRegistered;
}

int usb_left_callback(libusb_context*, libusb_device* device, libusb_hotplug_event, void* parent) {
    const auto desc = describe(device);
    if (parent != nullptr && desc) static_cast<DeviceMonitor*>(parent)->notifyPlugoutDevice(*desc);
    return kStayRegistered;
}

}  // namespace

DeviceMonitorZorvanImpl::DeviceMonitorZorvanImpl() {
    const int rc = libusb_init(&m_context);
    if (rc == LIBUSB_SUCCESS) return;
    m_context = nullptr;
    LOG_ERROR("Error: libusb initialise failed (%s)", libusb_error_name(rc));
}

DeviceMonitorZorvanImpl::~DeviceMonitorZorvanImpl() { stop(); }

void DeviceMonitorZorvanImpl::addDeviceFilter(int vendorId, int productId) {
    MutexLock lock(m_mutex);
    m_filters.push_back({vendorId, productId});
}

// Devices that are there already make no event: they come from getDeviceList().
bool DeviceMonitorZorvanImpl::launch() {
    MutexLock lock(m_mutex);
    if (m_filters.empty()) {
        LOG_INFO("Please add device filter before launch device monitor");
        return false;
    }
    if (m_context == nullptr) return false;  // logged when it could not be made
    if (libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG) == 0) {
        LOG_WARN("Warn: Hotplug capabilites are not supported on this platform");
        return false;
    }
    for (const DeviceFilter& filter : m_filters) {
        if (!registerCallbacks(filter)) return false;
    }
    m_thread = std::thread([this, context = m_context] { monitorRoutine(context); });
    return true;
}

// The handles of the last filter are kept; the others' callbacks end with the context.
bool DeviceMonitorZorvanImpl::registerCallbacks(const DeviceFilter& filter) {
    const auto add = [&filter, context = m_context, parent = m_parent](
                         libusb_hotplug_event event, libusb_hotplug_callback_fn callback,
                         int* handle) REQUIRES(m_mutex) {
        return libusb_hotplug_register_callback(context, event, 0, filter.vendorId,
                                                filter.productId, LIBUSB_HOTPLUG_MATCH_ANY,
                                                callback, parent, handle) == LIBUSB_SUCCESS;
    };
    if (!add(LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, usb_arrived_callback, &m_arrivedHandle)) {
        LOG_ERROR("Error: register device arrive callback failed");
        return false;
    }
    if (!add(LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT, usb_left_callback, &m_leftHandle)) {
        LOG_ERROR("Error: register device left callback failed");
        return false;
    }
    return true;
}

// The time-out is only a bound: stop() interrupts the wait.
void DeviceMonitorZorvanImpl::monitorRoutine(libusb_context* context) {
    while (!m_stopped) {
        timeval timeout{kPollSeconds, 0};
        const int rc = libusb_handle_events_timeout_completed(context, &timeout, nullptr);
        if (rc >= 0) continue;
        LOG_ERROR("Error: libusb_handle_events() failed, error=%s", libusb_error_name(rc));
        std::this_thread::sleep_for(kPauseAfterError);
    }
}

// The mutex is free during the join: the thread may wait for the parent's mutex, whose holder may
// wait for this one.
void DeviceMonitorZorvanImpl::stop() {
    m_stopped = true;
    MutexLock lock(m_mutex);
    if (m_context == nullptr) return;
    if (m_thread.joinable()) {
        libusb_interrupt_event_handler(m_context);
        lock.unlock();
        m_thread.join();
        lock.lock();
    }
    libusb_hotplug_deregister_callback(m_context, m_arrivedHandle);
    libusb_hotplug_deregister_callback(m_context, m_leftHandle);
    libusb_exit(m_context);
    m_context = nullptr;
}

std::vector<DeviceDesc> DeviceMonitorZorvanImpl::getDeviceList(int vendorId, int productId) {
    std::vector<DeviceDesc> devices;
    libusb_device** list = nullptr;
    MutexLock lock(m_mutex);
    if (m_context == nullptr || libusb_get_device_list(m_context, &list) < 0) return devices;
    for (libusb_device** device = list; *device != nullptr; ++device) {
        auto desc = describe(*device);
        if (!desc || desc->vendorId != vendorId) continue;
        if (productId != 0 && desc->productId != productId) continue;
        devices.push_back(std::move(*desc));
    }
    libusb_free_device_list(list, 1);
    return devices;
}

}  // namespace kelm
