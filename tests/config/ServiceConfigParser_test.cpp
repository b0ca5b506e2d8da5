#include "config/ServiceConfigParser.h"

#include <regex>

#include "InstallDir.h"

namespace kelm {
namespace {

using ::testing::HasSubstr;
using Parser = ServiceConfigParser;

std::string readFile(const std::string& name) {
    std::ostringstream text;
    text << std::ifstream(std::string(KELM_SOURCE_DIR) + "/" + name).rdbuf();
    return text.str();
}

// Each getter is a line of the header's table, with its key and its default.
TEST(ServiceConfigParserTest, ShippedFileAndManualHaveEveryKeyWithItsDefault) {
    const std::string table = readFile("service/src/config/ServiceConfigParser.h");
    const std::string shipped = readFile("config/kelm_service.config");
    const std::string manual = readFile("docs/configuration.md");
    const std::regex getter(R"re(\("([\w.]+)"(?:,(?: subclass,)? ([^)]*))?\); \})re");
    const std::sregex_iterator end;
    int count = 0;
    for (std::sregex_iterator it(table.begin(), table.end(), getter); it != end; ++it, ++count) {
        const std::string key = (*it)[1];
        const std::string name = key.substr(key.rfind('.') + 1);
        const std::string byDefault = (*it)[2].matched ? (*it)[2].str() : "\"off\"";
        EXPECT_THAT(shipped, HasSubstr("\"" + name + "\": " + byDefault));
        // The components of the step by step traces share one paragraph.
        const bool inTable = key.find(".debug_process.") == std::string::npos;
        const std::string words =
            inTable ? "\n\\| `" + name + "` \\|[^\n]*\\| " + byDefault + " \\|" : "`" + name + "`";
        EXPECT_TRUE(std::regex_search(manual, std::regex(words))) << key;
    }
    EXPECT_GE(count, 64);
    Parser parser;
    EXPECT_TRUE(parser.appendConfigFile(installDir().write("shipped", shipped), true));
}

// The JSON file that sets one dotted key, below the element of subclass 0 for the scheduler's keys.
std::string fileWith(const std::string& key, const std::string& json) {
    const size_t dot = key.find('.');
    if (dot == std::string::npos) return "{\"" + key + "\": " + json + "}";
    const std::string rest = fileWith(key.substr(dot + 1), json);
    if (!key.starts_with("scheduler_config"))
        return "{\"" + key.substr(0, dot) + "\": " + rest + "}";
    return "{\"scheduler_config\": [{\"subclass\": 0, " + rest.substr(1) + "]}";
}

template <auto Getter>
std::string show(const Parser& parser) {
    if constexpr (std::is_invocable_v<decltype(Getter), const Parser&, int>) {
        return ::testing::PrintToString((parser.*Getter)(0));
    } else {
        return ::testing::PrintToString((parser.*Getter)());
    }
}

TEST(ServiceConfigParserTest, UsableValuesOfANewerFileReplaceTheDefaults) {
    const struct {
        const char* key;
        std::string (*show)(const Parser& parser);
        const char* byDefault;
        const char* json;  // in the newer file
        const char* value;
    } rows[] = {
        {"service_settings.wait_seconds_before_exit", show<&Parser::getWaitSecondsBeforeExit>, "-1",
         "6", "6"},
        {"fake_device_settings.latency_distribution_stddev",
         show<&Parser::getFakeDeviceLatencyStddev>, "1", "2.5", "2.5"},
        {"debug_settings.debug_service", show<&Parser::isDebugServiceEnabled>, "true", "false",
         "false"},
        {"debug_settings.dump_graph", show<&Parser::isDumpGraphEnabled>, "false", "\"on\"", "true"},
        {"debug_settings.dump_graph", show<&Parser::isDumpGraphEnabled>, "false", "true", "false"},
        {"service_settings.task_scheduler", show<&Parser::getTaskScheduler>, "\"polling\"",
         "\"other\"", "\"other\""},
        {"scheduler_config.max_graph_per_device", show<&Parser::getMaxGraphNumPerDevice>, "2", "9",
         "9"},
        {"device_settings.device_vid", show<&Parser::getDeviceVid>, "31826", "\"0x1F\"", "31"},
        {"device_settings.device_vid", show<&Parser::getDeviceVid>, "31826", "\"zorvan\"", "0"},
        {"device_settings.device_pid", show<&Parser::getDevicePid>, "57754", "\"0x123456789\"",
         "0"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.key) + " " + row.json);
        Parser parser;
        EXPECT_EQ(row.show(parser), row.byDefault);
        const std::string newer = installDir().write("newer", fileWith(row.key, row.json));
        ASSERT_TRUE(parser.appendConfigFile(newer, true));
        EXPECT_EQ(row.show(parser), row.value);
    }
}

TEST(ServiceConfigParserTest, UsersOwnFileCannotWidenTheAccess) {
    const TempDir home;
    Parser parser;
    EXPECT_EQ(parser.getValidUserGroup(), "users");
    const std::string key = "security_settings.user_group";
    ASSERT_TRUE(
        parser.appendConfigFile(installDir().write("base", fileWith(key, "\"staff\"")), true));
    ASSERT_TRUE(parser.appendConfigFile(home.write("own", fileWith(key, "\"everyone\"")), false));
    EXPECT_EQ(parser.getValidUserGroup(), "staff");
}

}  // namespace
}  // namespace kelm
