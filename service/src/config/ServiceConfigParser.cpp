#include "config/ServiceConfigParser.h"

#include <stdexcept>

#include "utils/RunPaths.h"

namespace kelm {

namespace {

constexpr const char* kSchedulerSection = "scheduler_config";

}  // namespace

bool ServiceConfigParser::getGraphTagMap(int subclass,
                                         std::map<std::string, unsigned long>& tags) const {
    return parseTagMapFromConfigList(kSchedulerSection, "graph_tag_map", subclass, tags);
}

std::string ServiceConfigParser::getServiceAliveMutexPath() const { return RunPaths::aliveMutex(); }

std::string ServiceConfigParser::getServiceReadyMutexPath() const { return RunPaths::readyMutex(); }

std::string ServiceConfigParser::getStartExitMutexPath() const {
    return RunPaths::startExitMutex();
}

// With or without "0x" in front.
int ServiceConfigParser::hexadecimal(const char* key, const char* def) const {
    try {
        return std::stoi(parseStringFromConfigList(key, def), nullptr, 16);
    } catch (const std::logic_error&) {
        return 0;  // a filter of 0 finds no device, which the discovery reports
    }
}

int ServiceConfigParser::ofSubclass(const char* key, int subclass, int def) const {
    return parseIntegerFromConfigListWithSubclass(kSchedulerSection, key, subclass, def);
}

}  // namespace kelm
