#include "devices/DeviceFigures.h"

#include "execution/KelmDeviceBase.h"
#include "execution/WorkThread.h"

namespace kelm {

namespace {

using TimeGetter = bool (KelmDeviceBase::*)(GraphFigures::TimePoint&);

std::optional<GraphFigures::TimePoint> readTime(KelmDeviceBase& device, TimeGetter getter) {
    GraphFigures::TimePoint time;
    if (!(device.*getter)(time)) return std::nullopt;
    return time;
}

// Each value is read for itself: if the graph is unloaded in between, the later ones are empty.
SlotFigures readSlot(KelmDeviceBase& device, const std::string& state) {
    SlotFigures slot;
    slot.state = state;
    slot.fps = device.getFps();
    slot.current.name = device.getCurrentGraphName();
    slot.current.loadTime = readTime(device, &KelmDeviceBase::getCurrentGraphLoadTime);
    slot.current.inferences = device.getCurrentInferenceCount();
    slot.previous.name = device.getPreviousGraphName();
    slot.previous.loadTime = readTime(device, &KelmDeviceBase::getPreviousGraphLoadTime);
    slot.previous.unloadTime = readTime(device, &KelmDeviceBase::getPreviousGraphUnloadTime);
    slot.previous.inferences = device.getPreviousInferenceCount();
    return slot;
}

// The word that status answers have for a device without a graph.
std::string getLoadedGraphName(WorkThread& worker) {
    const std::string name = worker.getGraphName();
    return name.empty() ? "NoGraph" : name;
}

}  // namespace

// The root has what is the device's, the clones what is a slot's. Figures are read here and laid
// out elsewhere, so that no report keeps a lock while it formats.
DeviceFigures DeviceFigures::read(WorkThread& worker) {
    KelmDeviceBase& root = *worker.getDevice();
    DeviceFigures figures;
    figures.deviceId = root.getDeviceId();
    figures.name = root.getName();
    figures.utilization = root.getDeviceUtilization();
    figures.thermal = root.getThermal();
    figures.thermalThrottlingLevel = root.getThermalThrottlingLevel();
    figures.totalFps = worker.getTotalFps();
    figures.graphName = getLoadedGraphName(worker);
    figures.cachedGraphs = root.getCachedGraphNames();
    const std::vector<KelmDeviceBase*> devices = worker.getDevices();
    const std::vector<std::string> states = worker.getStates();  // one for each device
    for (size_t slot = 0; slot < devices.size(); ++slot) {
        figures.slots.push_back(readSlot(*devices[slot], states.at(slot)));
    }
    return figures;
}

}  // namespace kelm
