#pragma once

#include <optional>
#include <string>
#include <vector>

#include "config/ConfigKeys.h"
#include "tools/kelmctl/LocatedJson.h"
#include "utils/ConfigParser.h"

namespace kelm::ctl {

// Something in a configuration file that does not do what it seems to, and what mends it.
struct ConfigFinding {
    std::string path;
    TextPlace place;  // line 0: of the file as a whole
    std::string text;
};

// One configuration file, read by the service's own reader and beside it as a text with places.
//
// Threads: one.
class ConfigFile {
 public:
    explicit ConfigFile(std::string path);

    const std::string& path() const { return m_path; }
    // Why the service does not use the file; nothing if it does.
    const std::optional<ConfigFinding>& refusal() const { return m_refusal; }
    const LocatedJson& json() const { return m_json; }
    // What the service reads for a key from this file alone; nothing if it passes this file over.
    // Of a map of tags the numbers behind their names, "?" where it is not usable.
    std::optional<std::string> find(const ConfigKey& key, int subclass) const;
    // The subclasses that "scheduler_config" has settings for.
    std::vector<int> subclasses() const;

 private:
    void read();
    void refuse(const std::string& text, TextPlace place = {});
    std::optional<std::string> findInteger(const ConfigKey& key, int subclass) const;
    std::optional<std::string> findText(const ConfigKey& key) const;
    std::optional<std::string> findTags(int subclass) const;

    const std::string m_path;
    ConfigParser m_parser;
    LocatedJson m_json;
    std::optional<ConfigFinding> m_refusal;
};

// What the service uses where a key has this value: its bounds and choices applied.
std::string usedValue(const ConfigKey& key, const std::string& configured);
bool isInScheduler(const ConfigKey& key);
// The last part of the path.
std::string memberName(const ConfigKey& key);
// The first member of that name, as the service looks for it; null: none.
const LocatedJson* findMember(const LocatedJson& object, const std::string& name);

}  // namespace kelm::ctl
