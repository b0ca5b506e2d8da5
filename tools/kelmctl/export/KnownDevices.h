#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/kelmctl/export/ExportModel.h"

namespace kelm::ctl {

// Remembers which devices there were: one that the service does not list any more is lost, for a
// day, also when the service has started anew since; one that is listed again while the same
// service runs was replugged. At most 64 are remembered.
//
// Threads: one.
class KnownDevices {
 public:
    using Time = std::chrono::steady_clock::time_point;

    // A new service, which finds its devices one after the other, and has replugged none.
    void beginSession();
    // Counts the replugs of the devices, all that the service has now, and adds those that are
    // lost.
    void update(std::vector<ExportedDevice>& devices, Time now);

 private:
    struct Known {
        Time seen;
        uint64_t replugs = 0;
        bool isPresent = false;
        bool isLost = false;  // of this session
    };

    void forgetSome(Time now);

    std::map<std::string, Known> m_known;
};

}  // namespace kelm::ctl
