// The configuration: read by the service's reader, asked for every key, and looked through as
// `kelmctl config check` does. The input is one or two files; a byte 0 stands between them.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "config/ServiceConfigParser.h"
#include "tests/fakes/TempDir.h"
#include "tests/fuzz/targets/FuzzInput.h"
#include "tools/kelmctl/ConfigCheck.h"
#include "tools/kelmctl/ConfigCommand.h"
#include "tools/kelmctl/ConfigValues.h"
#include "utils/ConfigText.h"
#include "utils/Log.h"

namespace kelm {
namespace {

struct Files {
    // What is logged is formatted, and of no use but for a find.
    Files() { ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO); }

    TempDir directory;
    const ScopedEnv install{"KELM_INSTALL_DIR", directory.path()};
};

bool isAscii(char byte) { return (byte & 0x80) == 0; }

void readAll(const ServiceConfigParser& parser) {
    for (const ConfigKey& key : kConfigKeys) {
        (void)parser.parseIntegerFromConfigList(key.path, 1);
        (void)parser.parseDoubleFromConfigList(key.path, 1.0);
        (void)parser.parseBooleanFromConfigList(key.path, true);
        (void)parser.parseStringFromConfigList(key.path, "");
        (void)parser.parseStringFromDefaultConfigFile(key.path, "");
    }
    for (const int subclass : {0, 1, -1}) {
        std::map<std::string, unsigned long> tags;
        (void)parser.getGraphTagMap(subclass, tags);
        (void)parser.getMaxGraphNumPerDevice(subclass);
        (void)parser.getDeviceScheduleInterval(subclass);
    }
    (void)parser.getDeviceVid();
    (void)parser.getValidUserGroup();
    (void)parser.getGraphDumpPath();
    (void)parser.parseFwFromConfigList("fw", "firmware list");
    (void)getLogLevel(&parser);
    (void)ServiceConfigParser::listFiles("/install", {"further"});
    (void)parser.getServiceAliveMutexPath();
    (void)parser.getServiceReadyMutexPath();
    (void)parser.getStartExitMutexPath();
}

}  // namespace
}  // namespace kelm

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kelm;
    static Files files;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const size_t end = std::min(text.find('\0'), size);
    // No input is as large as a file may be at most: some grow.
    const std::string growth(size % 64 == 1 ? ConfigText::kMaxBytes : 0, ' ');
    const std::vector<std::string> paths = {
        files.directory.write("config/kelm_service.config", text.substr(0, end) + growth),
        files.directory.write("user.config", text.substr(std::min(end + 1, size)))};
    ServiceConfigParser parser;
    const std::vector<ctl::ConfigFile> read = ctl::loadConfigFiles(paths);
    Log::instance().setLogLevel(LOG_LEVEL_ERROR);  // which that has silenced
    for (const ctl::ConfigFile& file : read) {
        // kelmctl reads with the same parser: a file that one takes the other takes too.
        const bool isRead = parser.appendConfigFile(file.path(), true);
        if (isRead == file.refusal().has_value()) __builtin_trap();
        // And what the reader refuses has a fault that the check has found, too; only of bytes that
        // are no UTF-8 it does not know.
        const bool isFound = isRead || file.refusal()->text.find("no JSON to it") == text.npos;
        if (!isFound && std::ranges::all_of(text, isAscii)) __builtin_trap();
    }
    for (const char* path : {"/none", "/tmp"}) (void)parser.appendConfigFile(path, true);
    readAll(parser);
    (void)ctl::checkConfigFiles(read);
    (void)ctl::readConfigValues(read);
    return 0;
}
