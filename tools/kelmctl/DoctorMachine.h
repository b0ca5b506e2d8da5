#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "tools/kelmctl/ConfigFile.h"
#include "tools/kelmctl/DoctorReport.h"

namespace kelm::ctl {

// The checks of what the service finds on the machine. Each adds one row or more.

void checkConfiguration(const std::vector<ConfigFile>& files, DoctorReport& report);
void checkRunDirectory(DoctorReport& report);
// The libraries that the service loads when it uses accelerators.
void checkLibraries(DoctorReport& report);
// The nodes of the accelerators on the USB bus, how many they are, and whether the service may use
// them; 0: for the user of this process. Ports whose device comes again and again, by the kernel's
// log.
size_t checkDeviceNodes(const std::string& vendor, const std::string& product, pid_t service,
                        DoctorReport& report);
void checkSharedMemory(DoctorReport& report);
// Of the service's process; 0: of one that would be started from here.
void checkDescriptorLimit(pid_t service, DoctorReport& report);

}  // namespace kelm::ctl
