// The JSON reader's own use of the bind library would otherwise print a deprecation note.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS
// GCC takes the storage of an empty boost::optional for read when it also inserts sanitizer checks.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include "utils/ConfigParser.h"

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/range/adaptor/reversed.hpp>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>

#include "utils/ConfigText.h"
#include "utils/FileHelper.h"
#include "utils/Log.h"

namespace kelm {

namespace {

using Tree = boost::property_tree::ptree;

constexpr const char* kDefaultFirmware = "default";

// A value of the wrong type counts as one that is missing.
template <class T>
std::optional<T> valueAt(const Tree& tree, const char* key) {
    const auto child = tree.get_child_optional(key);
    if (!child) return std::nullopt;
    const auto value = child->template get_value_optional<T>();
    return value ? std::optional<T>(*value) : std::nullopt;
}

// Nothing, with a line in the log, if there is more than the limit.
std::optional<std::string> readBounded(std::istream& file, const std::string& path) {
    std::string text(ConfigText::kMaxBytes + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(file.gcount()));
    if (text.size() <= ConfigText::kMaxBytes) return text;
    LOG_ERROR(
        "Error: config file '%s' is larger than %lu bytes and is not used; shorten it, or split it "
        "into several files",
        path, ConfigText::kMaxBytes);
    return std::nullopt;
}

// False, with a line in the log, if objects and arrays lie deeper in each other than the limit.
bool isNestingBounded(const std::string& text, const std::string& path) {
    int depth = 0;
    bool quoted = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '"') quoted = !quoted;
        if (quoted) {
            if (c == '\\') ++i;  // what it escapes ends no string
        } else if (c == '{' || c == '[') {
            if (++depth > ConfigText::kMaxNesting) break;
        } else if (c == '}' || c == ']') {
            --depth;
        }
    }
    if (depth <= ConfigText::kMaxNesting) return true;
    LOG_ERROR(
        "Error: config file '%s' has more than %d levels of objects and arrays and is not used; "
        "remove what is nested deeper",
        path, ConfigText::kMaxNesting);
    return false;
}

// Read once, as the environment does not change. The directory may stand anywhere in the path.
bool liesUnderInstallDir(const std::string& path) {
    static const std::optional<std::string> kelmInstallDir = []() -> std::optional<std::string> {
        const char* value = std::getenv("KELM_INSTALL_DIR");
        return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
    }();
    return kelmInstallDir && path.find(*kelmInstallDir) != std::string::npos;
}

// Visits the elements of a section whose "subclass" is the one wanted, until `visit` returns true.
// Deliberate: an element without a readable "subclass" ends the visit.
template <class Visit>
bool visitSubclass(const Tree& tree, const char* section, int subclass, Visit visit) {
    const auto elements = tree.get_child_optional(section);
    if (!elements) return false;
    for (const auto& [name, element] : *elements) {
        const std::optional<int> found = valueAt<int>(element, "subclass");
        if (!found) return false;
        if (*found == subclass && visit(element)) return true;
    }
    return false;
}

// A member that is an object or array is no tag and is left out; of two equal names the first
// counts.
bool getTagMapFromSubnode(const Tree& node, int subclass,
                          std::map<std::string, unsigned long>& out) {
    out.clear();
    for (const auto& [name, child] : node) {
        if (!child.empty()) continue;
        const auto value = child.get_value_optional<unsigned long>();
        if (!value) {
            LOG_ERROR("Error: invalid key-value pair, subclass=%d key=%s", subclass, name);
            return false;
        }
        out.emplace(name, *value);
    }
    return true;
}

// 0 devices are a sensible wish for the default firmware only.
bool isBootNumValid(const firmwareConfig& firmware) {
    if (firmware.num >= (firmware.name == kDefaultFirmware ? 0 : 1)) return true;
    LOG_ERROR("Error: invalid bootNum %d for firmware %s, skip this firmware", firmware.num,
              firmware.name);
    return false;
}

// A path that is not absolute is taken as a name in the firmware directory of the installation.
bool resolveFirmwarePath(firmwareConfig& firmware) {
    if (firmware.path == "default") {
        firmware.path = getDefaultFWPathFromInstallDir("");
    } else if (firmware.path.empty() && firmware.name != kDefaultFirmware) {
        LOG_ERROR("Error: invalid firmwarePath \"%s\" for non-default firmware", firmware.path);
        return false;
    } else if (!FileHelper::isAbsolutePath(firmware.path)) {
        firmware.path = getDefaultFWPathFromInstallDir(firmware.path);
    }
    if (FileHelper::exist(firmware.path)) return true;
    LOG_ERROR("Error: invalid firmwarePath \"%s\"", firmware.path);
    return false;
}

void readFirmwareSection(const Tree& section, std::vector<firmwareConfig>& out) {
    for (const auto& [name, element] : section) {
        firmwareConfig firmware{element.get<std::string>("name"), element.get<int32_t>("num"),
                                element.get<std::string>("path")};
        if (isBootNumValid(firmware) && resolveFirmwarePath(firmware)) {
            out.push_back(std::move(firmware));
        }
    }
}

}  // namespace

struct ConfigParser::Impl {
    // The latest file first, so that it overrides the earlier ones key by key.
    template <class T>
    T parseFromConfigList(const char* key, const T& def) const {
        for (const Tree& tree : boost::adaptors::reverse(configTrees)) {
            if (std::optional<T> value = valueAt<T>(tree, key)) return *std::move(value);
        }
        return def;
    }

    std::vector<Tree> configTrees;         // in the order of loading
    std::vector<std::string> configFiles;  // the path of each tree
    Tree defaultConfigTree;                // of the latest file under the install directory
};

ConfigParser::ConfigParser() : m_impl(std::make_unique<Impl>()) {}

ConfigParser::~ConfigParser() = default;

// Nothing is kept before the last check has passed: a file that is refused changes nothing.
bool ConfigParser::appendConfigFile(const std::string& path, bool reportMissing) {
    if (!FileHelper::exist(path)) {
        if (reportMissing) LOG_ERROR("Error: config file '%s' is not exist", path);
        return false;
    }
    std::ifstream file(path);
    if (!file) {
        LOG_ERROR("Error: failed to open '%s'", path);
        return false;
    }
    const std::optional<std::string> commented = readBounded(file, path);
    if (!commented) return false;
    const std::string text = ConfigText::cutComments(*commented);
    if (!isNestingBounded(text, path)) return false;
    Tree tree;
    try {
        std::istringstream stream(text);
        boost::property_tree::read_json(stream, tree);
    } catch (const std::exception&) {
        LOG_ERROR("Error: config file '%s' is not in json format", path);
        return false;
    }
    if (tree.empty()) {
        LOG_ERROR("Error: config file '%s' is empty", path);
        return false;
    }
    m_impl->configTrees.push_back(tree);
    m_impl->configFiles.push_back(path);
    LOG_INFO("Config file '%s' has been loaded", path);
    if (liesUnderInstallDir(path)) m_impl->defaultConfigTree = tree;
    return true;
}

int ConfigParser::parseIntegerFromConfigList(const char* key, int def) const {
    return m_impl->parseFromConfigList<int>(key, def);
}

bool ConfigParser::parseBooleanFromConfigList(const char* key, bool def) const {
    return m_impl->parseFromConfigList<bool>(key, def);
}

double ConfigParser::parseDoubleFromConfigList(const char* key, double def) const {
    return m_impl->parseFromConfigList<double>(key, def);
}

std::string ConfigParser::parseStringFromConfigList(const char* key, const std::string& def) const {
    return m_impl->parseFromConfigList<std::string>(key, def);
}

std::string ConfigParser::parseStringFromDefaultConfigFile(const char* key,
                                                           const std::string& def) const {
    return valueAt<std::string>(m_impl->defaultConfigTree, key).value_or(def);
}

bool ConfigParser::isSwitchTurnedOn(const char* key, const std::string& def) const {
    return parseStringFromConfigList(key, def) == "on";
}

int ConfigParser::parseIntegerFromConfigListWithSubclass(const char* section, const char* key,
                                                         int subclass, int def) const {
    std::optional<int> value;
    const auto readKey = [&](const Tree& element) {
        value = valueAt<int>(element, key);
        if (!value) {
            LOG_ERROR("Error: invalid value type, path=%s.%s subclass=%d", section, key, subclass);
        }
        return value.has_value();
    };
    for (const Tree& tree : boost::adaptors::reverse(m_impl->configTrees)) {
        if (visitSubclass(tree, section, subclass, readKey)) return *value;
    }
    return def;
}

bool ConfigParser::parseTagMapFromConfigList(const char* section, const char* key, int subclass,
                                             std::map<std::string, unsigned long>& out) const {
    for (const Tree& tree : boost::adaptors::reverse(m_impl->configTrees)) {
        boost::optional<const Tree&> node;
        visitSubclass(tree, section, subclass, [&](const Tree& element) {
            node = element.get_child_optional(key);
            return true;  // without the key, the older files are next
        });
        if (node) return getTagMapFromSubnode(*node, subclass, out);
    }
    out.clear();
    return true;
}

std::vector<firmwareConfig> ConfigParser::parseFwFromConfigList(const char* section,
                                                                const char* errorName) const {
    std::vector<firmwareConfig> firmwares;
    for (const Tree& tree : boost::adaptors::reverse(m_impl->configTrees)) {
        const auto elements = tree.get_child_optional(section);
        if (!elements) continue;
        try {
            readFirmwareSection(*elements, firmwares);
            break;
        } catch (const boost::property_tree::ptree_bad_path&) {
            // Deliberate: an element that lacks a member ends this file without a word, and the
            // older file's entries follow behind what was read.
        } catch (const boost::property_tree::ptree_error&) {
            LOG_ERROR("Error: %s", errorName);
        }
    }
    return firmwares;
}

unsigned int getLogLevel(const ConfigParser* parser) {
    const struct {
        bool enabled;
        LogLevel level;
    } switches[] = {
        {parser->isLogProcessEnabled(), LOG_LEVEL_PROC},
        {parser->isLogDebugEnabled(), LOG_LEVEL_DEBUG},
        {parser->isLogInfoEnabled(), LOG_LEVEL_INFO},
        {parser->isLogWarnEnabled(), LOG_LEVEL_WARN},
        {parser->isLogFrequentEnabled(), LOG_LEVEL_FREQ},
        {parser->isLogErrorEnabled(), LOG_LEVEL_ERROR},
        {parser->isLogFatalEnabled(), LOG_LEVEL_FATAL},
    };
    unsigned int mask = 0;
    for (const auto& entry : switches) mask |= entry.enabled ? entry.level : 0U;
    return mask;
}

std::string getDefaultFWPathFromInstallDir(const std::string& fileName) {
    const char* installDir = std::getenv("KELM_INSTALL_DIR");
    if (installDir == nullptr) {
        LOG_ERROR("Error: failed to getEnv('KELM_INSTALL_DIR')");
        return "";
    }
    const std::string name = fileName.empty() ? "TevoAPI-zv4810.tvfrm" : fileName;
    return std::string(installDir) + "/lib/tevo/" + name;
}

}  // namespace kelm
