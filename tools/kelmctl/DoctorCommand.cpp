#include "tools/kelmctl/DoctorCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "tools/kelmctl/ConfigCommand.h"
#include "tools/kelmctl/ConfigValues.h"
#include "tools/kelmctl/DoctorMachine.h"
#include "tools/kelmctl/DoctorReport.h"
#include "tools/kelmctl/DoctorService.h"
#include "tools/kelmctl/Interruption.h"

namespace kelm::ctl {

namespace {

// Without the install directory's variable the defaults stand in.
std::vector<ConfigFile> readConfiguration(const DoctorOptions& options, DoctorReport& report) {
    try {
        std::vector<ConfigFile> files = loadConfigFiles(listConfigPaths(options.configFiles));
        checkConfiguration(files, report);
        return files;
    } catch (const std::runtime_error&) {
        report.add({"configuration", Verdict::kWarning, "KELM_INSTALL_DIR is not set",
                    "set it as for the service, or its configuration is not looked at"});
        return {};
    }
}

// As the devices are named, or else as it is configured.
bool isSimulated(const ServiceLook& service, const std::string& configured) {
    if (!service.status || service.status->devices.empty()) return configured == "true";
    return std::ranges::all_of(service.status->devices, [](const client::DeviceStatus& device) {
        return device.name.starts_with("Fake");
    });
}

void examine(const DoctorOptions& options, Interruption& interruption, DoctorReport& report) {
    const client::Deadline deadline = GraphSession::deadlineOf(options.graph);
    const std::vector<ConfigValue> values = readConfigValues(readConfiguration(options, report));
    const auto valueOf = [&](const char* key) {
        return std::ranges::find(values, key, &ConfigValue::key)->value;
    };
    checkRunDirectory(report);
    const ServiceLook service = checkSockets(deadline, interruption, report);
    checkLocks(service, report);
    checkGroup(valueOf("security_settings.user_group"), report);
    const bool simulated = isSimulated(service, valueOf("fake_device_settings.enable_fake_device"));
    if (simulated) {
        report.add({"device", Verdict::kOk, "simulated ones need no library and no bus", ""});
    } else if (service.isElsewhere()) {
        report.add({"device", Verdict::kOk, "the service runs outside of this container", ""});
    } else {
        checkLibraries(report);
        const size_t count =
            checkDeviceNodes(valueOf("device_settings.device_vid"),
                             valueOf("device_settings.device_pid"), service.pid, report);
        if (service.status && service.status->deviceCount < count) {
            report.add(
                {"device", Verdict::kWarning,
                 fmt::format("the service uses {} of {}", service.status->deviceCount, count),
                 "see its log for the others, and plug them in again"});
        }
    }
    checkSharedMemory(report);
    if (!service.isElsewhere()) checkDescriptorLimit(service.pid, report);
    if (service.status) checkInference(options.graph, simulated, interruption, report);
}

}  // namespace

int runDoctor(const DoctorOptions& options) {
    Interruption interruption;
    return interruption.run([&] {
        DoctorReport report(options.json);
        examine(options, interruption, report);
        return report.finish();
    });
}

}  // namespace kelm::ctl
