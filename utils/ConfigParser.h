#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kelm {

// One entry of a firmware list.
struct firmwareConfig {
    std::string name;  // "default" is special: it may boot on no device
    int32_t num = 0;   // how many devices boot this firmware
    std::string path;  // resolved to an existing file
};

// A stack of JSON files, asked by dotted key. A file appended later overrides an earlier one key by
// key. A value that is missing or of the wrong type falls through to an older file and at last to
// the caller's default, without a word.
//
// Threads: files are appended before other threads start; afterwards queries may come from any
// thread, which is safe because the stack no longer changes.
// Owns: the parsed files.
class ConfigParser {
 public:
    ConfigParser();
    virtual ~ConfigParser();
    ConfigParser(const ConfigParser&) = delete;
    ConfigParser& operator=(const ConfigParser&) = delete;

    // Loads one file onto the stack. Everything from `//` to the end of a line is a comment. False,
    // with the stack as it was, if the file is missing (logged only with `reportMissing`), has more
    // than 1 MB or 64 levels of nesting, is no JSON or holds nothing.
    bool appendConfigFile(const std::string& path, bool reportMissing);

    int parseIntegerFromConfigList(const char* key, int def) const;
    bool parseBooleanFromConfigList(const char* key, bool def) const;
    double parseDoubleFromConfigList(const char* key, double def) const;
    std::string parseStringFromConfigList(const char* key, const std::string& def) const;

    // Only the latest loaded file under the install directory has a say.
    std::string parseStringFromDefaultConfigFile(const char* key, const std::string& def) const;

    // True exactly for the text "on".
    bool isSwitchTurnedOn(const char* key, const std::string& def) const;

    // `section` is an array of objects with a member "subclass"; `key` is read from the one of that
    // subclass. An element without "subclass" hides those behind it.
    int parseIntegerFromConfigListWithSubclass(const char* section, const char* key, int subclass,
                                               int def) const;

    // The same for an object of names and numbers. True with an empty map if there is none; false,
    // with what came before it, at a value that is no number.
    bool parseTagMapFromConfigList(const char* section, const char* key, int subclass,
                                   std::map<std::string, unsigned long>& out) const;

    // The firmware list of the latest file that has the section, less the entries that are invalid
    // or whose file does not exist. `errorName` is logged for a value of the wrong type.
    std::vector<firmwareConfig> parseFwFromConfigList(const char* section,
                                                      const char* errorName) const;

    bool isLogFrequentEnabled() const { return isSwitchTurnedOn("log_level.log_frequent", "off"); }
    bool isLogProcessEnabled() const { return isSwitchTurnedOn("log_level.log_process", "off"); }
    bool isLogDebugEnabled() const { return isSwitchTurnedOn("log_level.log_debug", "off"); }
    bool isLogInfoEnabled() const { return isSwitchTurnedOn("log_level.log_info", "on"); }
    bool isLogWarnEnabled() const { return isSwitchTurnedOn("log_level.log_warn", "on"); }
    bool isLogErrorEnabled() const { return isSwitchTurnedOn("log_level.log_error", "on"); }
    bool isLogFatalEnabled() const { return isSwitchTurnedOn("log_level.log_fatal", "on"); }

 private:
    struct Impl;  // keeps the tree library out of the header

    std::unique_ptr<Impl> m_impl;
};

// Folds the seven switches of "log_level" into the mask of the log.
unsigned int getLogLevel(const ConfigParser* parser);

// The path of a firmware file under the install directory; an empty name means the default image.
// Empty if KELM_INSTALL_DIR is not set.
std::string getDefaultFWPathFromInstallDir(const std::string& fileName);

}  // namespace kelm
