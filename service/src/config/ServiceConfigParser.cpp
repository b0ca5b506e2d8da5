#include "config/ServiceConfigParser.h"

#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "utils/FileHelper.h"
#include "utils/RunPaths.h"

namespace kelm {

namespace {

// The table's defaults are well-formed.
int toInteger(const char* text) { return static_cast<int>(std::strtol(text, nullptr, 10)); }

}  // namespace

std::vector<ServiceConfigParser::File> ServiceConfigParser::listFiles(
    const std::string& installDir, const std::vector<std::string>& furtherFiles) {
    std::vector<File> files{{installDir + "/config/kelm_service.config", true}};
    if (const char* home = FileHelper::getHome()) {
        files.push_back({std::string(home) + "/.kelm_service.config", false});
    }
    for (const std::string& file : furtherFiles) files.push_back({file, false});
    return files;
}

bool ServiceConfigParser::getGraphTagMap(int subclass,
                                         std::map<std::string, unsigned long>& tags) const {
    return parseTagMapFromConfigList(kSchedulerSection, "graph_tag_map", subclass, tags);
}

std::string ServiceConfigParser::getServiceAliveMutexPath() const { return RunPaths::aliveMutex(); }

std::string ServiceConfigParser::getServiceReadyMutexPath() const { return RunPaths::readyMutex(); }

std::string ServiceConfigParser::getStartExitMutexPath() const {
    return RunPaths::startExitMutex();
}

int ServiceConfigParser::integer(ConfigKeyOf<ConfigKind::kInteger> key) const {
    return parseIntegerFromConfigList(key->path, toInteger(key->byDefault));
}

double ServiceConfigParser::number(ConfigKeyOf<ConfigKind::kNumber> key) const {
    return parseDoubleFromConfigList(key->path, std::strtod(key->byDefault, nullptr));
}

bool ServiceConfigParser::boolean(ConfigKeyOf<ConfigKind::kBoolean> key) const {
    return parseBooleanFromConfigList(key->path, std::string_view("true") == key->byDefault);
}

bool ServiceConfigParser::isOn(ConfigKeyOf<ConfigKind::kSwitch> key) const {
    return isSwitchTurnedOn(key->path, key->byDefault);
}

std::string ServiceConfigParser::text(ConfigKeyOf<ConfigKind::kText> key) const {
    return parseStringFromConfigList(key->path, key->byDefault);
}

std::string ServiceConfigParser::directory(ConfigKeyOf<ConfigKind::kDirectory> key) const {
    return parseStringFromConfigList(key->path, key->byDefault);
}

std::string ServiceConfigParser::group(ConfigKeyOf<ConfigKind::kGroup> key) const {
    return parseStringFromDefaultConfigFile(key->path, key->byDefault);
}

// With or without "0x" in front.
int ServiceConfigParser::hexadecimal(ConfigKeyOf<ConfigKind::kHexadecimal> key) const {
    try {
        return std::stoi(parseStringFromConfigList(key->path, key->byDefault), nullptr, 16);
    } catch (const std::logic_error&) {
        return 0;  // a filter of 0 finds no device, which the discovery reports
    }
}

int ServiceConfigParser::ofSubclass(ConfigKeyOf<ConfigKind::kInteger> key, int subclass) const {
    const char* member = key->path + std::string_view(kSchedulerSection).size() + 1;
    return parseIntegerFromConfigListWithSubclass(kSchedulerSection, member, subclass,
                                                  toInteger(key->byDefault));
}

}  // namespace kelm
