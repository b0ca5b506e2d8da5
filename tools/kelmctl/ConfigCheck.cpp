#include "tools/kelmctl/ConfigCheck.h"

#include <fmt/format.h>
#include <grp.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <string>

#include "tools/kelmctl/ConfigValues.h"
#include "tools/kelmctl/NearestName.h"
#include "utils/CommonHelper.h"
#include "utils/TextHelper.h"

namespace kelm::ctl {

namespace {

using Kind = LocatedJson::Kind;

std::string quotedChoices(const ConfigKey& key) {
    std::string words;
    for (const char c : key.choices.words) words += c == '|' ? "\", \"" : std::string(1, c);
    return fmt::format("\"{}\"", words);
}

std::string expected(const ConfigKey& key) {
    switch (key.kind) {
        case ConfigKind::kInteger:
            return "a whole number from -2147483648 to 2147483647";
        case ConfigKind::kNumber:
            return "a number";
        case ConfigKind::kBoolean:
            return "true or false";
        case ConfigKind::kSwitch:
            return "\"on\" or \"off\"";
        case ConfigKind::kText:
            return key.choices.words.empty() ? "a text" : "one of " + quotedChoices(key);
        case ConfigKind::kDirectory:
            return "a directory that is there";
        case ConfigKind::kHexadecimal:
            return "a hexadecimal number in quotes, as \"0x7c52\"";
        case ConfigKind::kGroup:
            return "the name of a group";
        case ConfigKind::kTags:
            break;
    }
    return "an object of names and numbers, as {\"tag\": 2}";
}

bool isText(ConfigKind kind) {
    return kind != ConfigKind::kInteger && kind != ConfigKind::kNumber &&
           kind != ConfigKind::kBoolean && kind != ConfigKind::kTags;
}

// As it stands in the file.
std::string shown(const LocatedJson& value) {
    switch (value.kind) {
        case Kind::kArray:
            return "an array";
        case Kind::kObject:
            return "an object";
        case Kind::kString:
            return "\"" + value.text + "\"";
        default:
            return value.text;
    }
}

std::string schedulerPrefix() { return fmt::format("{}.", kSchedulerSection); }

// A walk over one file.
class Check {
 public:
    explicit Check(const ConfigFile& file) : m_file(file) {}

    std::vector<ConfigFinding> run() {
        if (m_file.json().kind == Kind::kObject) {
            checkSection("", m_file.json());
        } else {
            add(m_file.json().place, "no key is found in an array; put all into an object: { }");
        }
        return std::move(m_findings);
    }

 private:
    void add(TextPlace place, const std::string& text) {
        m_findings.push_back({m_file.path(), place, text});
    }

    // `prefix` is the section's path with a dot behind it, or empty.
    void checkSection(const std::string& prefix, const LocatedJson& section) {
        std::set<std::string> seen;
        for (const LocatedJson::Member& member : section.members) {
            if (!seen.insert(member.name).second) {
                add(member.place, fmt::format("\"{}\" stands here twice, and the first one counts; "
                                              "remove one",
                                              prefix + member.name));
            } else {
                checkMember(prefix, member);
            }
        }
    }

    void checkMember(const std::string& prefix, const LocatedJson::Member& member) {
        const std::string path = prefix + member.name;
        if (path == kSchedulerSection) return checkSubclasses(member.value);
        for (const ConfigKey& key : kConfigKeys) {
            if (key.path == path) return checkValue(key, member.value);
        }
        if (path == schedulerPrefix() + kSubclassMember) return;
        if (!isSection(path)) return addUnknown(prefix, member);
        if (member.value.kind == Kind::kObject) return checkSection(path + ".", member.value);
        add(member.value.place,
            fmt::format("\"{}\" is {}, and none of its keys is found; write an object: {{ }}", path,
                        shown(member.value)));
    }

    static bool isSection(const std::string& path) {
        return std::ranges::any_of(kConfigKeys, [&](const ConfigKey& key) {
            return std::string_view(key.path).starts_with(path + ".");
        });
    }

    void addUnknown(const std::string& prefix, const LocatedJson::Member& member) {
        std::vector<std::string> names;
        for (const ConfigKey& key : kConfigKeys) {
            const std::string path = key.path;
            if (memberName(key) == member.name) {
                const std::string section = path.substr(0, path.rfind('.'));
                return add(member.place, fmt::format("no key here; move \"{}\" into \"{}\"",
                                                     member.name, section));
            }
            if (path.starts_with(prefix)) {
                names.push_back(
                    path.substr(prefix.size(), path.find('.', prefix.size()) - prefix.size()));
            }
        }
        if (prefix == schedulerPrefix()) names.emplace_back(kSubclassMember);
        add(member.place,
            fmt::format("unknown key \"{}\"; the nearest is \"{}\": correct or remove it",
                        prefix + member.name, prefix + findNearest(member.name, names)));
    }

    // An element without a subclass ends the service's search.
    void checkSubclasses(const LocatedJson& section) {
        if (section.kind != Kind::kArray) {
            return add(section.place, fmt::format("\"{}\" is an array of objects; write [{{ }}]",
                                                  kSchedulerSection));
        }
        for (const LocatedJson::Member& element : section.members) {
            const LocatedJson* subclass = findMember(element.value, kSubclassMember);
            const bool isNumber = subclass != nullptr && isWhole(subclass->text);
            if (!isNumber) {
                return add(element.value.place,
                           fmt::format("this element and those behind it are passed over, as it "
                                       "has no number \"{0}\"; add \"{0}\": 0",
                                       kSubclassMember));
            }
            m_subclass = std::atoi(subclass->text.c_str());
            checkSection(schedulerPrefix(), element.value);
        }
    }

    static bool isWhole(const std::string& text) {
        constexpr size_t kMostDigits = 9;  // a subclass is a byte
        return !text.empty() && text.size() <= kMostDigits &&
               text.find_first_not_of("0123456789") == text.npos;
    }

    void checkValue(const ConfigKey& key, const LocatedJson& value) {
        const bool isMap = key.kind == ConfigKind::kTags;
        if (isMap ? value.kind != Kind::kObject : value.isContainer()) {
            return addWrong(key, value, isText(key.kind) ? "counts as empty" : "is passed over");
        }
        const std::optional<std::string> configured = m_file.find(key, m_subclass);
        if (isMap) return checkTags(key, value);
        if (key.kind == ConfigKind::kGroup) return checkGroup(key, value, configured);
        if (!configured) return addWrong(key, value, "is passed over");
        if (key.kind == ConfigKind::kHexadecimal && value.kind == Kind::kNumber) {
            return addWrong(key, value, "counts as hexadecimal");
        }
        const std::string used = usedValue(key, *configured);
        if (used == (key.choices.anyCase ? toLower(*configured) : *configured)) return;
        addWrong(key, value, fmt::format("counts as {}", used.empty() ? "\"\"" : used));
    }

    void addWrong(const ConfigKey& key, const LocatedJson& value, const std::string& effect) {
        const ConfigBounds& bounds = key.bounds;
        const bool isBounded = effect.starts_with("counts as") && !isText(key.kind);
        add(value.place,
            fmt::format("\"{}\" is {}, which {}; write {}", key.path, shown(value), effect,
                        isBounded ? fmt::format("{} or more", std::max(bounds.low[0].below,
                                                                       bounds.low[1].below)) +
                                        limitOf(bounds)
                                  : expected(key)));
    }

    static std::string limitOf(const ConfigBounds& bounds) {
        const bool isOpen = bounds.most == std::numeric_limits<int>::max();
        return isOpen ? "" : fmt::format(", up to {}", bounds.most);
    }

    void checkTags(const ConfigKey& key, const LocatedJson& map) {
        for (const LocatedJson::Member& tag : map.members) {
            if (tag.value.isContainer()) {
                add(tag.value.place, fmt::format("tag \"{}\" is {} and is left out; write a number "
                                                 "of devices",
                                                 tag.name, shown(tag.value)));
            } else if (!isWhole(tag.value.text)) {
                add(tag.value.place,
                    fmt::format("tag \"{}\" of \"{}\" is {}; write a number of devices: one that "
                                "is no number keeps the service from starting",
                                tag.name, key.path, shown(tag.value)));
            }
        }
    }

    void checkGroup(const ConfigKey& key, const LocatedJson& value,
                    const std::optional<std::string>& configured) {
        // Without the variable nobody can tell which file that is.
        const std::string installDir = CommonHelper::getKelmInstallDir();
        if (!configured && !installDir.empty()) {
            return add(value.place,
                       fmt::format("\"{}\" counts only in the file under the install directory, "
                                   "{}; move it there",
                                   key.path, installDir));
        }
        if (!value.text.empty() && ::getgrnam(value.text.c_str()) == nullptr) {
            add(value.place,
                fmt::format("there is no group \"{0}\", and the sockets keep the group of the "
                            "service's account; write one that is there, or run: groupadd {0}",
                            value.text));
        }
    }

    const ConfigFile& m_file;
    int m_subclass = 0;  // of the element that is looked at
    std::vector<ConfigFinding> m_findings;
};

}  // namespace

std::vector<ConfigFinding> checkConfigFile(const ConfigFile& file) {
    if (file.refusal()) return {*file.refusal()};
    return Check(file).run();
}

std::vector<ConfigFinding> checkConfigFiles(const std::vector<ConfigFile>& files) {
    std::vector<ConfigFinding> findings;
    for (const ConfigFile& file : files) {
        std::ranges::move(checkConfigFile(file), std::back_inserter(findings));
    }
    const std::vector<ConfigValue> values = readConfigValues(files);
    const auto valueOf = [&](const char* name) -> const ConfigValue& {
        return *std::ranges::find(values, name, &ConfigValue::key);
    };
    const ConfigValue& cached = valueOf("service_settings.max_cached_graph_number");
    const ConfigValue& running = valueOf("scheduler_config[0].max_graph_per_device");
    if (std::stoi(cached.value) < std::stoi(running.value)) {
        findings.push_back({cached.file,
                            {},
                            fmt::format("\"{}\" is {} and counts as {}, the value of \"{}\"; "
                                        "write that or more",
                                        cached.key, cached.value, running.value, running.key)});
    }
    return findings;
}

}  // namespace kelm::ctl
