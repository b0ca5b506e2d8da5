#include "tools/kelmctl/export/page/PageHistory.h"

#include <algorithm>

namespace kelm::ctl {

namespace {

std::optional<double> hottestOf(const ExportSnapshot& snapshot) {
    std::optional<double> hottest;
    for (const ExportedDevice& device : snapshot.devices) {
        // What is not known is less than any.
        if (device.isPresent) hottest = std::max(hottest, device.temperature);
    }
    return hottest;
}

}  // namespace

std::optional<uint64_t> waitingTasks(const ExportSnapshot& snapshot) {
    if (!snapshot.isUp || !snapshot.missing.empty()) return std::nullopt;
    uint64_t waiting = 0;
    for (const ExportedGraph& graph : snapshot.graphs) waiting += graph.waiting.value_or(0);
    return waiting;
}

void PageHistory::addTo(Series& series, std::optional<double> value) {
    if (series.empty()) series.emplace_back();
    Mean& mean = series.back();
    mean.newest = value;
    if (!value) return;
    mean.sum += *value;
    ++mean.count;
}

void PageHistory::advance(int64_t slot) {
    const int64_t passed = m_slot ? slot - *m_slot : 0;
    m_slot = slot;
    const auto added = static_cast<size_t>(std::clamp<int64_t>(passed, 0, kSlots));
    const auto shift = [&](Series& series) {
        series.resize(series.size() + added);
        while (series.size() > kSlots) series.pop_front();
        if (!series.empty()) series.back().newest.reset();
    };
    std::ranges::for_each(m_figures, shift);
    for (auto& [name, series] : m_devices) shift(series);
    std::erase_if(m_devices, [](const auto& device) {
        return std::ranges::none_of(device.second, [](const Mean& mean) { return mean.count > 0; });
    });
}

void PageHistory::add(const ExportSnapshot& snapshot, Time now) {
    advance(now.time_since_epoch() / kSlot);
    if (!snapshot.isUp) return;
    addTo(m_figures[kRate], snapshot.service.fps);
    addTo(m_figures[kWaiting], waitingTasks(snapshot));
    addTo(m_figures[kHottest], hottestOf(snapshot));
    for (const ExportedDevice& device : snapshot.devices) {
        if (!device.isPresent) continue;
        const bool isKnown = m_devices.contains(device.name);
        if (isKnown || m_devices.size() < kMostDevices) addTo(m_devices[device.name], device.fps);
    }
}

PageHistory::Values PageHistory::valuesOf(const Series& series) {
    Values values(kSlots - series.size());
    for (const Mean& mean : series) {
        values.push_back(mean.count > 0 ? std::optional(mean.sum / mean.count) : std::nullopt);
    }
    if (!series.empty()) values.back() = series.back().newest;
    return values;
}

PageHistory::Values PageHistory::deviceRate(const std::string& name) const {
    const auto found = m_devices.find(name);
    return found != m_devices.end() ? valuesOf(found->second) : Values(kSlots);
}

}  // namespace kelm::ctl
