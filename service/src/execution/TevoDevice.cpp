#include "execution/TevoDevice.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "config/ServiceConfigParser.h"
#include "records/KelmTask.h"

namespace kelm {

namespace {

// Statuses of the library that mean a lost device, and the service's own mark of one.
constexpr int kHardwareErrors[] = {-2, -6, -8, -13, KELM_ERROR_DEVICE_FAILED};

}  // namespace

TevoDevice::TevoDevice(const std::string& deviceName, std::function<void()> reset)
    : tevo(TevoLibrary::functions()),
      name(deviceName),
      logName("dev:" + deviceName),
      trace(ServiceConfigParser::instance().isDeviceDebugProcessEnabled(), logName),
      m_reset(std::move(reset)) {}

bool TevoDevice::isHardwareError(int error) {
    return std::find(std::begin(kHardwareErrors), std::end(kHardwareErrors), error) !=
           std::end(kHardwareErrors);
}

// The log line comes first, since the reset takes a while: readers look for what led to it.
int TevoDevice::checked(int rc, const char* failure) {
    if (rc == KELM_OK) return KELM_OK;
    LOG_ERROR(failure, name, rc);
    hardwareResetDevice(rc);
    return rc;
}

int TevoDevice::checked(int rc, const char* failure, KelmTask* task) {
    if (rc == KELM_OK) return KELM_OK;
    LOG_ERROR(failure, name, task->getId(), rc);
    hardwareResetDevice(rc);
    return rc;
}

// A status of another kind is the fault of a graph or of one call: the device serves the others on.
void TevoDevice::hardwareResetDevice(int error) {
    if (!isHardwareError(error)) {
        LOG_INFO(
            "error(%d) is not a hardware error, not suggest to execute hardware reset operation",
            error);
        return;
    }
    m_reset();
}

int TevoDevice::getDeviceWord(int option, unsigned int* value) {
    unsigned int length = sizeof(*value);
    return traced("qxDeviceGetOption",
                  [&] { return tevo.qxDeviceGetOption(handle, option, value, &length); });
}

}  // namespace kelm
