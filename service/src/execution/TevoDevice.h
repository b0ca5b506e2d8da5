#pragma once

#include <functional>
#include <string>

#include "execution/TevoLibrary.h"
#include "utils/Log.h"
#include "utils/NonCopyable.h"
#include "utils/StepTrace.h"

namespace kelm {

class KelmTask;

// A device as the library knows it, and what surrounds every call for it: two lines for readers of
// the process log, and a reset of the hardware where a failure means that the device is lost.
//
// Threads: any. Owns: nothing; the root device closes the handle.
class TevoDevice : public NonCopyable {
 public:
    // `reset` is called by whichever thread meets such a failure.
    TevoDevice(const std::string& deviceName, std::function<void()> reset);

    static bool isHardwareError(int error);

    // Brackets a library call with two lines in the log.
    template <class Call>
    int traced(const char* function, Call call);
    // Passes the status on; a failure is logged, with the device and the status behind the format's
    // text, and may reset the hardware. The second form has the task between them.
    int checked(int rc, const char* failure);
    int checked(int rc, const char* failure, KelmTask* task);
    // Resets the hardware if the error is one of the hardware.
    void hardwareResetDevice(int error);
    int getDeviceWord(int option, unsigned int* value);

    const TevoFunctions& tevo;
    const std::string name;
    const std::string logName;
    const StepTrace trace;  // of the device, lines around calls included
    // Set at open and cleared at the destruction, when no other thread uses the device.
    qxDeviceHandle_t* handle = nullptr;

 private:
    const std::function<void()> m_reset;
};

template <class Call>
int TevoDevice::traced(const char* function, Call call) {
    LOG_PROC_OF(trace.getObject(), trace.isOn(), "to call %s()", function);
    const int rc = call();
    LOG_PROC_OF(trace.getObject(), trace.isOn(), "called %s()", function);
    return rc;
}

}  // namespace kelm
