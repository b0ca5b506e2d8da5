#include "tools/simulator/UsbBus.h"

#include <umockdev.h>

#include <algorithm>
#include <cstdint>
#include <regex>
#include <stdexcept>
#include <vector>

#include "utils/StringHelper.h"

namespace kelm::simulator {

namespace {

constexpr int kHubVendor = 1;
constexpr int kHubProduct = 1;
constexpr int kHubClass = 9;
constexpr int kVendorClass = 255;
constexpr int kAddresses = 127;

using Bytes = std::vector<uint8_t>;

void put16(Bytes& bytes, int value) {
    bytes.push_back(static_cast<uint8_t>(value & 0xff));
    bytes.push_back(static_cast<uint8_t>((value >> 8) & 0xff));
}

void append(Bytes& bytes, std::initializer_list<int> values) {
    for (const int value : values) bytes.push_back(static_cast<uint8_t>(value));
}

// The device descriptor, one configuration and at most one interface without endpoints.
Bytes descriptorsOf(const UsbDevice& device, int deviceClass) {
    const bool hasInterface = device.subclass >= 0;
    Bytes bytes;
    append(bytes, {18, 1, 0x00, 0x02, deviceClass, 0, 0, 64});
    put16(bytes, device.vendorId);
    put16(bytes, device.productId);
    append(bytes, {0, 1, 0, 0, 0, 1});
    append(bytes, {9, 2});
    put16(bytes, hasInterface ? 18 : 9);
    append(bytes, {hasInterface ? 1 : 0, 1, 0, 0x80, 50});
    if (hasInterface) append(bytes, {9, 4, 0, 0, 0, kVendorClass, device.subclass, 0, 0});
    return bytes;
}

std::string hex(const Bytes& bytes) {
    std::string text;
    for (const uint8_t byte : bytes) text += StringHelper::format("%02X", byte);
    return text;
}

// "1.2.3" is "1-2.3" to the kernel, and "1" the root hub "usb1".
std::string kernelName(const std::string& name) {
    const size_t dot = name.find('.');
    if (dot == std::string::npos) return "usb" + name;
    return name.substr(0, dot) + "-" + name.substr(dot + 1);
}

std::string parentOf(const std::string& name) { return name.substr(0, name.rfind('.')); }

template <class Pointer>
UMockdevTestbed* bedOf(const Pointer& pointer) {
    return static_cast<UMockdevTestbed*>(pointer.get());
}

}  // namespace

void UsbBus::Unref::operator()(void* testbed) const { g_object_unref(testbed); }

UsbBus::UsbBus() : m_testbed(umockdev_testbed_new()) {
    if (!umockdev_in_mock_environment())
        throw std::runtime_error("libumockdev-preload.so.0 is not preloaded");
}

UsbBus::~UsbBus() = default;

void UsbBus::checkPlace(const std::string& name) {
    static const std::regex kPlace("[1-9][0-9]{0,2}([.][1-9][0-9]{0,2}){1,6}");
    if (!std::regex_match(name, kPlace)) {
        throw std::invalid_argument("'" + name + "' is no place on a bus, like 1.2.3");
    }
}

void UsbBus::plug(const UsbDevice& device) {
    checkPlace(device.name);
    if (m_places.contains(device.name)) return;
    addHubs(parentOf(device.name));
    add(device, false);
}

// From the root down: a device can be added only below one that is there.
void UsbBus::addHubs(const std::string& name) {
    if (m_places.contains(name)) return;
    if (const std::string parent = parentOf(name); parent != name) addHubs(parent);
    add({name, kHubVendor, kHubProduct, 0}, true);
}

// Addresses are not used again at once, as on a real bus, and never while a device has them: what
// is listening would take the new one for that.
int UsbBus::nextAddress(int bus) {
    int& last = m_lastAddress[bus];
    const auto isLast = [&](const auto& entry) {
        return entry.second.address == last && std::stoi(entry.first) == bus;
    };
    do {
        last = last % kAddresses + 1;
    } while (std::ranges::any_of(m_places, isLast));
    return last;
}

void UsbBus::add(const UsbDevice& device, bool isHub) {
    const int bus = std::stoi(device.name);
    const int address = nextAddress(bus);
    const std::string parent = parentOf(device.name);
    const std::string base =
        parent == device.name ? "/devices/pci0000:00/0000:00:14.0" : m_places.at(parent).path;
    const std::string path = base + "/" + kernelName(device.name);
    const std::string node = StringHelper::format("bus/usb/%03d/%03d", bus, address);
    // In the mock library's language: path, node, environment, attributes and the binary
    // descriptors.
    std::string text = "P: " + path + "\nN: " + node + "\n";
    text += "E: DEVNAME=/dev/" + node + "\nE: DEVTYPE=usb_device\nE: SUBSYSTEM=usb\n";
    text += StringHelper::format("E: BUSNUM=%03d\nE: DEVNUM=%03d\n", bus, address);
    text += StringHelper::format("A: busnum=%d\nA: devnum=%d\nA: speed=480\n", bus, address);
    text += "A: bConfigurationValue=1\n";
    text += "H: descriptors=" + hex(descriptorsOf(device, isHub ? kHubClass : 0)) + "\n";
    GError* error = nullptr;
    if (umockdev_testbed_add_from_string(bedOf(m_testbed), text.c_str(), &error) == 0) {
        const std::string why = error->message;
        g_error_free(error);
        throw std::runtime_error("cannot plug " + device.name + ": " + why);
    }
    m_places[device.name] = {path, address};
    umockdev_testbed_uevent(bedOf(m_testbed), ("/sys" + path).c_str(), "add");
}

bool UsbBus::unplug(const std::string& name) {
    const auto found = m_places.find(name);
    if (found == m_places.end()) return false;
    const std::string path = "/sys" + found->second.path;
    umockdev_testbed_uevent(bedOf(m_testbed), path.c_str(), "remove");
    umockdev_testbed_remove_device(bedOf(m_testbed), path.c_str());
    m_places.erase(found);
    return true;
}

}  // namespace kelm::simulator
