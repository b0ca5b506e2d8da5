#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/Snapshot.h"
#include "client/Status.h"

namespace kelm::ctl {

// A device whose temperature has not been read yet tells exactly 0.
inline bool isMeasured(const client::DeviceStatus& device) { return device.thermal != 0.0f; }

// On the graphs that the device holds, since they were loaded.
uint64_t inferencesOf(const client::DeviceSnapshot& device);
// The version of the protocol that the client speaks, as "2.0".
std::string apiOf(const client::ClientSnapshot& client);

// What the two sources tell about one thing; null: that source has no row for it.
template <class Status, class More>
struct MergedRow {
    const Status* status = nullptr;
    const More* more = nullptr;
};

// The rows of a status beside those of a snapshot, both borrowed. Devices and graphs are those of
// the status; to its clients come those that only the snapshot has a row for.
struct MergedStatus {
    // The snapshot may be null: then there is nothing but the status.
    MergedStatus(const client::ServiceStatus& status, const client::Snapshot* snapshot);

    std::vector<MergedRow<client::DeviceStatus, client::DeviceSnapshot>> devices;
    std::vector<MergedRow<client::GraphStatus, client::GraphSnapshot>> graphs;
    std::vector<MergedRow<client::ClientStatus, client::ClientSnapshot>> clients;
};

}  // namespace kelm::ctl
