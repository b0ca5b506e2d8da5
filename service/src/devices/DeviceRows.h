#pragma once

#include <vector>

#include "devices/DeviceFigures.h"

namespace kelm {

struct InfoPackage;

// Writes a row for each device, from the package's row number `deviceCount` on, as far as there are
// rows, and in a row as many graphs as it has places. The count stays as it is.
void writeDeviceRows(const std::vector<DeviceFigures>& devices, InfoPackage& package);

}  // namespace kelm
