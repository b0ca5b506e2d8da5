#pragma once

#include <map>
#include <memory>
#include <string>

#include "utils/NonCopyable.h"

namespace kelm::simulator {

// A device on the mock bus. The name is its place, "1.2.3" for bus 1, port 2 of the root, port 3 of
// the hub there. A subclass below 0 stands for a configuration without interfaces.
struct UsbDevice {
    std::string name;
    int vendorId = 0;
    int productId = 0;
    int subclass = 0;
};

// A USB bus that exists only for this process and its children. All of them must run with
// libumockdev-preload.so.0 preloaded; the environment of the children names the bus.
//
// Threads: one.
class UsbBus : public NonCopyable {
 public:
    // Throws std::runtime_error if the library is not preloaded.
    UsbBus();
    ~UsbBus();

    // Throws std::invalid_argument for a name that is no place for a device.
    static void checkPlace(const std::string& name);

    // Adds the device, and the hubs on the way to it, and tells the listeners. Nothing happens if
    // it is there already. Checks the place.
    void plug(const UsbDevice& device);
    // False if no such device is there. Hubs stay.
    bool unplug(const std::string& name);

 private:
    struct Place {
        std::string path;  // below /sys
        int address = 0;
    };
    struct Unref {
        void operator()(void* testbed) const;
    };

    // Adds one device below its parent, which is there.
    void add(const UsbDevice& device, bool isHub);
    void addHubs(const std::string& name);
    int nextAddress(int bus);

    const std::unique_ptr<void, Unref> m_testbed;  // UMockdevTestbed
    std::map<std::string, Place> m_places;         // by name, hubs included
    std::map<int, int> m_lastAddress;              // by bus
};

}  // namespace kelm::simulator
