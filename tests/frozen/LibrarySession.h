#pragma once

#include <string>
#include <vector>

#include "fakes/ServiceConfig.h"

namespace kelm {

// All that the client library can ask for, in the order of a real client, over and over the same.
class LibrarySession {
 public:
    // A device for streams and one for all else, slow enough that a task waits behind the others
    // for as long as a few calls take.
    static std::string serviceConfig() {
        return ServiceConfig::fakeDevices(2, 250) +
               R"(, "scheduler_config": [{"subclass": 0, "stream_device_number": 1}])";
    }
    // What the file holds that is passed by its path.
    static constexpr const char* kGraph = "graph of the frozen session";

    // To be done by a service before a session: the client's id is then none of the numbers that
    // its graphs and tasks get, and fields that have changed places differ.
    static void useUpNumbers(const std::string& directory);
    // How the calls have ended, a line each, without what differs from run to run. Both sockets are
    // in the directory.
    static std::vector<std::string> run(const std::string& directory, const std::string& graphFile);
};

}  // namespace kelm
