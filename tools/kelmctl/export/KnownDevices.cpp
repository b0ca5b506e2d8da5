#include "tools/kelmctl/export/KnownDevices.h"

#include <algorithm>

namespace kelm::ctl {

void KnownDevices::beginSession() {
    for (auto& [name, known] : m_known) known.isPresent = known.isLost = false;
}

void KnownDevices::update(std::vector<ExportedDevice>& devices, Time now) {
    for (ExportedDevice& device : devices) {
        Known& known = m_known[device.name];
        if (known.isLost) ++known.replugs;
        known.seen = now;
        known.isPresent = true;
        known.isLost = false;
        device.replugs = known.replugs;
    }
    forgetSome(now);
    for (auto& [name, known] : m_known) {
        if (known.seen == now) continue;
        known.isLost = known.isLost || known.isPresent;
        known.isPresent = false;
        ExportedDevice& lost = devices.emplace_back();
        lost.name = name;
        lost.replugs = known.replugs;
        lost.isPresent = false;
    }
}

void KnownDevices::forgetSome(Time now) {
    static constexpr std::chrono::hours kKept{24};
    constexpr size_t kMost = 64;
    std::erase_if(m_known, [now](const auto& entry) { return now - entry.second.seen > kKept; });
    while (m_known.size() > kMost) {
        m_known.erase(std::ranges::min_element(
            m_known, {}, [](const auto& entry) { return entry.second.seen; }));
    }
}

}  // namespace kelm::ctl
