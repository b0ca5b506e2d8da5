#include "tools/kelmctl/ConfigFile.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <utility>

#include "utils/CommonHelper.h"
#include "utils/ConfigText.h"
#include "utils/TextHelper.h"

namespace kelm::ctl {

namespace {

constexpr const char* kNotUsed = "the service does not use this file: ";

// A value that does not depend on the default is the file's own.
template <class Read, class Value>
std::optional<Value> own(const Read& read, const Value& one, const Value& other) {
    const Value value = read(one);
    return value == read(other) ? std::optional<Value>(value) : std::nullopt;
}

bool isHexadecimal(const std::string& text) {
    try {
        return std::stoi(text, nullptr, 16) != 0;
    } catch (const std::logic_error&) {
        return false;
    }
}

std::string chosen(const ConfigChoices& choices, const std::string& text) {
    const std::string wanted = choices.anyCase ? toLower(text) : text;
    const bool isOne = wanted.find('|') == wanted.npos &&
                       fmt::format("|{}|", choices.words).find("|" + wanted + "|") != wanted.npos;
    return isOne ? wanted : choices.others;
}

// The installed file, which alone decides some keys, is told by the name that the service has for
// it.
std::string pathForReader(const std::string& path) {
    const std::string installed = CommonHelper::getKelmInstallDir() + "/config/kelm_service.config";
    std::error_code none;  // a file that is not there is another one
    return std::filesystem::equivalent(path, installed, none) ? installed : path;
}

}  // namespace

ConfigFile::ConfigFile(std::string path) : m_path(std::move(path)) { read(); }

void ConfigFile::refuse(const std::string& text, TextPlace place) {
    m_refusal = {m_path, place, kNotUsed + text};
}

void ConfigFile::read() {
    std::ifstream file(m_path);
    std::string text(ConfigText::kMaxBytes + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!file.is_open() || file.bad() || std::filesystem::is_directory(m_path)) {
        const char* reason = file.is_open() ? "it is no plain file" : std::strerror(errno);
        return refuse(fmt::format("{}; give one that the service can read", reason));
    }
    text.resize(static_cast<size_t>(file.gcount()));
    if (text.size() > ConfigText::kMaxBytes) {
        return refuse(
            fmt::format("it has more than {} bytes; shorten or split it", ConfigText::kMaxBytes));
    }
    try {
        m_json = LocatedJson::parse(ConfigText::cutComments(text), ConfigText::kMaxNesting);
    } catch (const LocatedJsonError& error) {
        std::istringstream lines(text);
        std::string line;
        for (int i = 0; i < error.place.line; ++i) std::getline(lines, line);
        const bool isCut = line.find("//") != line.npos;
        return refuse(fmt::format("{}{}; correct it there or shortly before", error.what(),
                                  isCut ? " (two slashes begin a comment, within quotes too)" : ""),
                      error.place);
    }
    if (m_json.members.empty()) return refuse("it has no keys; put them into an object: { }");
    if (!m_parser.appendConfigFile(pathForReader(m_path), false)) {
        refuse("it is no JSON to it; remove what is unusual, as bytes that are no UTF-8");
    }
}

std::optional<std::string> ConfigFile::find(const ConfigKey& key, int subclass) const {
    switch (key.kind) {
        case ConfigKind::kInteger:
            return findInteger(key, subclass);
        case ConfigKind::kNumber: {
            const auto read = [&](double def) {
                return m_parser.parseDoubleFromConfigList(key.path, def);
            };
            const auto value = own(read, 0.0, 1.0);
            return value ? std::optional(fmt::format("{}", *value)) : std::nullopt;
        }
        case ConfigKind::kBoolean: {
            const auto read = [&](bool def) {
                return m_parser.parseBooleanFromConfigList(key.path, def);
            };
            const auto value = own(read, false, true);
            return value ? std::optional<std::string>(*value ? "true" : "false") : std::nullopt;
        }
        case ConfigKind::kTags:
            return findTags(subclass);
        default:
            return findText(key);
    }
}

std::optional<std::string> ConfigFile::findInteger(const ConfigKey& key, int subclass) const {
    const std::string member = memberName(key);
    const auto read = [&](int def) {
        return isInScheduler(key) ? m_parser.parseIntegerFromConfigListWithSubclass(
                                        kSchedulerSection, member.c_str(), subclass, def)
                                  : m_parser.parseIntegerFromConfigList(key.path, def);
    };
    const auto value = own(read, 0, 1);
    return value ? std::optional(std::to_string(*value)) : std::nullopt;
}

std::optional<std::string> ConfigFile::findText(const ConfigKey& key) const {
    const auto read = [&](const std::string& def) {
        return key.kind == ConfigKind::kGroup
                   ? m_parser.parseStringFromDefaultConfigFile(key.path, def)
                   : m_parser.parseStringFromConfigList(key.path, def);
    };
    return own(read, std::string("0"), std::string("1"));
}

std::optional<std::string> ConfigFile::findTags(int subclass) const {
    const LocatedJson* section = findMember(m_json, kSchedulerSection);
    if (section == nullptr) return std::nullopt;
    for (const LocatedJson::Member& element : section->members) {
        const LocatedJson* number = findMember(element.value, kSubclassMember);
        if (number == nullptr) return std::nullopt;  // hides those behind it
        if (number->text != std::to_string(subclass)) continue;
        if (findMember(element.value, "graph_tag_map") == nullptr) return std::nullopt;
        std::map<std::string, unsigned long> tags;
        if (!m_parser.parseTagMapFromConfigList(kSchedulerSection, "graph_tag_map", subclass,
                                                tags)) {
            return "?";
        }
        std::string text;
        for (const auto& [name, count] : tags) {
            text += fmt::format("{}\"{}\": {}", text.empty() ? "" : ", ", name, count);
        }
        return "{" + text + "}";
    }
    return std::nullopt;
}

std::vector<int> ConfigFile::subclasses() const {
    std::vector<int> found;
    const LocatedJson* section = findMember(m_json, kSchedulerSection);
    if (section == nullptr) return found;
    for (const LocatedJson::Member& element : section->members) {
        const LocatedJson* number = findMember(element.value, kSubclassMember);
        if (number != nullptr) found.push_back(std::atoi(number->text.c_str()));
    }
    return found;
}

std::string usedValue(const ConfigKey& key, const std::string& configured) {
    switch (key.kind) {
        case ConfigKind::kInteger:
            return std::to_string(key.bounds.apply(std::stoi(configured)));
        case ConfigKind::kNumber:
            return fmt::format("{}", key.bounds.apply(std::stod(configured)));
        case ConfigKind::kSwitch:
            return configured == "on" ? "on" : "off";
        case ConfigKind::kText:
            return key.choices.words.empty() ? configured : chosen(key.choices, configured);
        case ConfigKind::kDirectory:
            return std::filesystem::is_directory(configured) ? configured : "";
        case ConfigKind::kHexadecimal:
            return isHexadecimal(configured) ? configured : "0";
        default:
            return configured;
    }
}

bool isInScheduler(const ConfigKey& key) {
    return std::string_view(key.path).starts_with(kSchedulerSection);
}

std::string memberName(const ConfigKey& key) {
    const std::string path = key.path;
    return path.substr(path.rfind('.') + 1);
}

const LocatedJson* findMember(const LocatedJson& object, const std::string& name) {
    const auto found = std::ranges::find(object.members, name, &LocatedJson::Member::name);
    return found != object.members.end() ? &found->value : nullptr;
}

}  // namespace kelm::ctl
