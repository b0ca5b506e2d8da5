#include "tools/kelmctl/ResetCommand.h"

#include <algorithm>
#include <charconv>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "client/Client.h"
#include "tools/kelmctl/Interruption.h"
#include "tools/kelmctl/Timeout.h"

namespace kelm::ctl {

namespace {

// By name first: a device may be named like the id of another one. An id goes to the service as it
// is, since a status has no room for all devices.
uint32_t findDevice(const std::string& device, const client::ServiceStatus& status) {
    const auto found =
        std::ranges::find(status.devices, device, [](const auto& row) { return row.name; });
    if (found != status.devices.end()) return found->id;
    uint32_t id = 0;
    const char* const end = device.data() + device.size();
    const auto result = std::from_chars(device.data(), end, id);
    if (result.ec == std::errc() && result.ptr == end && !device.empty()) return id;
    std::string names;
    for (const client::DeviceStatus& row : status.devices) {
        names += (names.empty() ? "" : ", ") + row.name;
    }
    throw std::runtime_error("no device " + device +
                             "; the service has: " + (names.empty() ? "none" : names));
}

void reset(const ResetOptions& options, const Timeout& timeout, Interruption& interruption) {
    const std::shared_ptr<client::Client> service =
        take(client::Client::connect({}, timeout.left()));
    require(service->registerClient("kelmctl", timeout.left()));
    interruption.setService(service);
    if (options.all) {
        require(service->resetAllDevices(timeout.left()));
    } else {
        const auto status =
            take(service->queryStatus(client::StatusPart::kDevices, timeout.left()));
        require(service->resetDevice(findDevice(options.device, status), timeout.left()));
    }
    require(service->unregister());
    std::cout << (options.all ? "all devices" : "device " + options.device) << " reset\n";
}

}  // namespace

int runReset(const ResetOptions& options) {
    const Timeout timeout(options.timeout);
    if (options.all != options.device.empty()) {
        throw UsageError("name one device, or give --all; kelmctl status lists them");
    }
    Interruption interruption;
    return interruption.run([&] {
        reset(options, timeout, interruption);
        return 0;
    });
}

}  // namespace kelm::ctl
