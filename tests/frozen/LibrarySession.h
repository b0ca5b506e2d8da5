#pragma once

namespace kelm {

// One client of the library that makes each of its calls, always in the same order.
class LibrarySession {
 public:
    // Sections of the configuration: a device for streams and one for all else. Its results take
    // their time: a task waits behind the others until the next result.
    static constexpr const char* kServiceConfig = R"(
        "fake_device_settings": {"fake_device_number": 2, "get_result_latency": 500},
        "service_settings": {"max_inference_number": 2},
        "scheduler_config": [{"subclass": 0, "stream_device_number": 1}])";
    // What the file holds that is passed by its path.
    static constexpr const char* kGraph = "graph of the frozen session";

    // To be done by a service before a session: the client's id is then none of the numbers that
    // its graphs and tasks get, and fields that have changed places differ.
    static void useUpNumbers(const std::string& directory);
    // How the calls have ended, a line each, with all that they brought. Both sockets are in the
    // directory.
    static std::vector<std::string> run(const std::string& directory, const std::string& graphFile);
};

}  // namespace kelm
