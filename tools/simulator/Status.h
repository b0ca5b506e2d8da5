#pragma once

namespace kelm::simulator {

// What the simulated library answers. The caller takes -2, -6, -8 and -13 for hardware errors.
enum Status : int {
    kOk = 0,
    kBusy = -1,      // the device is open already
    kGone = -2,      // the device has left the bus, or was reset
    kNoMemory = -3,  // the graph does not fit into the device's memory
    kNoDevice = -4,  // no device of this name
    kInvalid = -5,   // a null handle, a wrong length, a buffer that cannot be mapped
    kTimeout = -7,   // a read or a write has waited as long as the orders let it
    kNoGraph = -10,  // the blob is no graph
};

}  // namespace kelm::simulator
