#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "scheduling/mapping/DeviceItem.h"

namespace kelm {

// Chooses devices for one plan, the first in the walk among equals. Each search begins where the
// last of its kind ended, which holds only while no device becomes free, and while none is chosen
// by load before all those that a plan fills by demand are filled.
//
// Threads: one, for one plan. Owns: nothing; borrows the devices. Locks: none, GraphMapper holds
// its mutex meanwhile.
class DeviceSelector {
 public:
    explicit DeviceSelector(const DeviceItemSet& devices) : m_devices(devices) {}

    // Null: all are taken.
    DeviceItem* getFreeDevice();
    uint32_t getFreeDeviceNum() const;
    // A device of one ready graph that has room for a second of `memReq` MB, or null.
    DeviceItem* getRdyDevice(uint32_t memReq) const;
    // The least busy device of one graph beside which another may be forced; each at most once, for
    // it is full then. Null: none has the memory.
    DeviceItem* getLeastBusyDedicatedDevice(uint32_t memReq);
    // A busy device to be relieved: those of two graphs first, the busiest before the others, each
    // once, since it loses its second graph; then the busiest of one graph again and again, since
    // that one's load does not change. Null: no device is busy.
    DeviceItem* getMostBusyDevice();

 private:
    DeviceItemSet findDedicatedDevices() const;
    DeviceItemSet findBusyPairs() const;
    DeviceItem* findBusiestSingle() const;

    const DeviceItemSet& m_devices;
    size_t m_freeCursor = 0;
    // Each is collected when it is first asked for; the devices do not change for others after it.
    std::optional<DeviceItemSet> m_dedicated;
    std::optional<DeviceItemSet> m_busyPairs;
    size_t m_nextPair = 0;
    DeviceItem* m_busiestSingle = nullptr;
};

}  // namespace kelm
