#include "tools/kelmctl/ConfigValues.h"

#include <fmt/format.h>

#include <set>

namespace kelm::ctl {

namespace {

ConfigValue readValue(const ConfigKey& key, int subclass, const std::vector<ConfigFile>& files) {
    ConfigValue value{key.path, key.kind, key.byDefault, ""};
    if (isInScheduler(key)) {
        value.key = fmt::format("{}[{}].{}", kSchedulerSection, subclass, memberName(key));
    }
    for (const ConfigFile& file : files) {
        const auto found = file.find(key, subclass);
        if (!found) continue;
        value.value = usedValue(key, *found);
        value.file = file.path();
    }
    return value;
}

}  // namespace

std::vector<ConfigValue> readConfigValues(const std::vector<ConfigFile>& files) {
    std::set<int> subclasses{0};
    for (const ConfigFile& file : files) {
        for (const int subclass : file.subclasses()) subclasses.insert(subclass);
    }
    std::vector<ConfigValue> values;
    for (const ConfigKey& key : kConfigKeys) {
        if (!isInScheduler(key)) values.push_back(readValue(key, 0, files));
    }
    for (const int subclass : subclasses) {
        for (const ConfigKey& key : kConfigKeys) {
            if (isInScheduler(key)) values.push_back(readValue(key, subclass, files));
        }
    }
    return values;
}

}  // namespace kelm::ctl
