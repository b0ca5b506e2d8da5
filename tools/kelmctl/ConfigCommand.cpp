#include "tools/kelmctl/ConfigCommand.h"

#include <fmt/format.h>

#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "config/ServiceConfigParser.h"
#include "tools/kelmctl/ConfigCheck.h"
#include "tools/kelmctl/ConfigValues.h"
#include "tools/kelmctl/JsonText.h"
#include "tools/kelmctl/SafeText.h"
#include "tools/kelmctl/UsageError.h"
#include "utils/CommonHelper.h"
#include "utils/Log.h"

namespace kelm::ctl {

namespace {

constexpr int kKeysSchema = 1;

// One line that a terminal obeys in nothing, whatever a file holds.
void print(const std::string& text, bool utf8) {
    std::cout << toUtf8(safeText(text, utf8)) << "\n";
}

std::string describe(const ConfigFinding& finding) {
    const auto& [path, place, text] = finding;
    if (place.line == 0) return fmt::format("{}: {}", path, text);
    return fmt::format("{}:{}:{}: {}", path, place.line, place.column, text);
}

nlohmann::json toJson(const ConfigValue& value) {
    nlohmann::json object{{"key", value.key}, {"value", value.value}};
    object["file"] = value.file.empty() ? nlohmann::json() : nlohmann::json(value.file);
    const bool isPlain = value.kind <= ConfigKind::kBoolean || value.kind == ConfigKind::kTags;
    // A map that keeps the service from starting has no value.
    if (isPlain) object["value"] = nlohmann::json::parse(value.value, nullptr, false);
    if (object["value"].is_discarded()) object["value"] = nullptr;
    return object;
}

}  // namespace

std::vector<std::string> listConfigPaths(const std::vector<std::string>& configFiles) {
    const std::string installDir = CommonHelper::getKelmInstallDir();
    if (installDir.empty()) {
        throw std::runtime_error(
            "KELM_INSTALL_DIR is not set, and the service does not start without it; set it as for "
            "the service");
    }
    std::vector<std::string> paths;
    for (const auto& [path, isRequired] : ServiceConfigParser::listFiles(installDir, {})) {
        if (isRequired || std::filesystem::exists(path)) paths.push_back(path);
    }
    paths.insert(paths.end(), configFiles.begin(), configFiles.end());
    return paths;
}

std::vector<ConfigFile> loadConfigFiles(const std::vector<std::string>& paths) {
    Log::instance().setLogLevel(0);
    return {paths.begin(), paths.end()};
}

int runConfigCheck(const ConfigOptions& options) {
    if (!options.files.empty() && !options.configFiles.empty()) {
        throw UsageError("name the files, or add some with --config-file to the service's own");
    }
    const std::vector<ConfigFile> files = loadConfigFiles(
        options.files.empty() ? listConfigPaths(options.configFiles) : options.files);
    const std::vector<ConfigFinding> findings = checkConfigFiles(files);
    const bool utf8 = useTerminalLocale();
    for (const ConfigFinding& finding : findings) print(describe(finding), utf8);
    return findings.empty() ? 0 : 1;
}

int runConfigShow(const ConfigOptions& options) {
    const std::vector<ConfigFile> files = loadConfigFiles(listConfigPaths(options.configFiles));
    const std::vector<ConfigValue> values = readConfigValues(files);
    if (options.json) {
        nlohmann::json object{{"schema", kKeysSchema}, {"keys", nlohmann::json::array()}};
        for (const ConfigValue& value : values) object["keys"].push_back(toJson(value));
        std::cout << toJsonText(object) << "\n";
        return 0;
    }
    const bool utf8 = useTerminalLocale();
    for (const ConfigValue& value : values) {
        const std::string text = value.value.empty() ? "\"\"" : value.value;
        const std::string origin = value.file.empty() ? "default" : value.file;
        print(options.origin ? fmt::format("{:<56} {:<12} {}", value.key, text, origin)
                             : fmt::format("{:<56} {}", value.key, text),
              utf8);
    }
    return 0;
}

}  // namespace kelm::ctl
