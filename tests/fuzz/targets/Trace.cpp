// `kelmctl trace`. The input is up to four files, with a byte 0 between them: frames, tasks,
// threads and events. What is written must be JSON.

#include <exception>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/fakes/TempDir.h"
#include "tests/fuzz/targets/FuzzInput.h"
#include "tools/kelmctl/TraceCommand.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kelm;
    static const TempDir directory;
    std::string text(reinterpret_cast<const char*>(data), size);
    const auto takeFile = [&text](const std::string& name) {
        const size_t end = std::min(text.find('\0'), text.size());
        const std::string path = directory.write(name, text.substr(0, end));
        text.erase(0, end + 1);
        return path;
    };
    ctl::TraceOptions options;
    options.frames = takeFile("frames.csv");
    options.tasks = takeFile("tasks.csv");
    options.threads = takeFile("thread.info");
    if (!text.empty()) options.names = takeFile("names");
    options.output = directory.path() + "/out.json";
    // A rate that no counter has, once in a while the measured one, and an output that is an input.
    if (size % 64 != 1) options.tscMhz = size % 64 == 2 ? 0.5 : 1000.0;
    if (size % 64 == 3) options.output = options.frames;
    try {
        (void)ctl::runTrace(options);
    } catch (const std::exception&) {
        return 0;  // told to the user, as in main()
    }
    if (!nlohmann::json::accept(std::ifstream(options.output))) __builtin_trap();
    return 0;
}
