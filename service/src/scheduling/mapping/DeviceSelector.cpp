#include "scheduling/mapping/DeviceSelector.h"

#include <algorithm>
#include <iterator>

namespace kelm {

namespace {

// A device above this load takes no further graph. By design far above any real load.
constexpr float kUtilLimit = 100.0f;

bool isFree(const DeviceItem* device) { return device->devStatus == MAPPER_GRAPH_NONE; }

// No load, no need for relief: graphs that ask for nothing stay as they are.
bool isBusy(const DeviceItem* device, size_t graphNum) {
    return device->devStatus == MAPPER_GRAPH_RUN && device->graphs.size() == graphNum &&
           device->util > 0.0f;
}

}  // namespace

// A device is taken from then on when its status is set; one that is offered and not taken is
// offered again.
DeviceItem* DeviceSelector::getFreeDevice() {
    while (m_freeCursor < m_devices.size() && !isFree(m_devices[m_freeCursor])) ++m_freeCursor;
    return m_freeCursor < m_devices.size() ? m_devices[m_freeCursor] : nullptr;
}

uint32_t DeviceSelector::getFreeDeviceNum() const {
    return static_cast<uint32_t>(std::count_if(m_devices.begin(), m_devices.end(), isFree));
}

// In 64 bits: two sizes of 32 bits may add up to more.
DeviceItem* DeviceSelector::getRdyDevice(uint32_t memReq) const {
    const auto found =
        std::find_if(m_devices.begin(), m_devices.end(), [memReq](const DeviceItem* device) {
            return device->devStatus == MAPPER_GRAPH_RDY && device->graphs.size() == 1 &&
                   uint64_t{device->mem} + memReq < device->memSize;
        });
    return found != m_devices.end() ? *found : nullptr;
}

// In order of load, so the first with enough memory is the least busy. It is erased, since it holds
// two graphs from now on.
DeviceItem* DeviceSelector::getLeastBusyDedicatedDevice(uint32_t memReq) {
    if (!m_dedicated) m_dedicated = findDedicatedDevices();
    const auto found =
        std::find_if(m_dedicated->begin(), m_dedicated->end(), [memReq](const DeviceItem* device) {
            // Deliberate: `mem` of a shadow is still 0 here. Only a chosen pair is tested as a sum.
            return uint64_t{device->mem} + memReq < device->memSize;
        });
    if (found == m_dedicated->end()) return nullptr;
    DeviceItem* device = *found;
    m_dedicated->erase(found);
    return device;
}

// Forcing a graph onto one of them changes nothing for the others: each holds a graph that has no
// other device of this kind. A stable sort: among equal loads the first in the walk wins.
DeviceItemSet DeviceSelector::findDedicatedDevices() const {
    DeviceItemSet found;
    std::copy_if(m_devices.begin(), m_devices.end(), std::back_inserter(found),
                 [](const DeviceItem* device) {
                     return device->devStatus == MAPPER_GRAPH_RUN && device->graphs.size() == 1 &&
                            !device->isFull && device->graphs.find(0)->sharedDevNum != 1 &&
                            device->util < kUtilLimit;
                 });
    std::stable_sort(
        found.begin(), found.end(),
        [](const DeviceItem* left, const DeviceItem* right) { return left->util < right->util; });
    return found;
}

// A pair that has been relieved counts as a single: singles are looked at when no pair is left.
DeviceItem* DeviceSelector::getMostBusyDevice() {
    if (!m_busyPairs) m_busyPairs = findBusyPairs();
    if (m_nextPair < m_busyPairs->size()) return (*m_busyPairs)[m_nextPair++];
    if (m_busiestSingle == nullptr) m_busiestSingle = findBusiestSingle();
    return m_busiestSingle;
}

DeviceItemSet DeviceSelector::findBusyPairs() const {
    DeviceItemSet pairs;
    std::copy_if(m_devices.begin(), m_devices.end(), std::back_inserter(pairs),
                 [](const DeviceItem* device) { return isBusy(device, 2); });
    std::stable_sort(
        pairs.begin(), pairs.end(),
        [](const DeviceItem* left, const DeviceItem* right) { return left->util > right->util; });
    return pairs;
}

DeviceItem* DeviceSelector::findBusiestSingle() const {
    DeviceItem* busiest = nullptr;
    for (DeviceItem* device : m_devices) {
        if (!isBusy(device, 1)) continue;
        if (busiest == nullptr || device->util > busiest->util) busiest = device;
    }
    return busiest;
}

}  // namespace kelm
