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
        std::string (*show)(const Parser& parser);
        const char* byDefault;
        const char* json;  // in the newer file
        const char* value;
    } rows[] = {
        {show<&Parser::getWaitSecondsBeforeExit>, "-1",
         R"({"service_settings": {"wait_seconds_before_exit": 6}})", "6"},
        {show<&Parser::getFakeDeviceLatencyStddev>, "1",
         R"({"fake_device_settings": {"latency_distribution_stddev": 2.5}})", "2.5"},
        {show<&Parser::isDebugServiceEnabled>, "true",
         R"({"debug_settings": {"debug_service": false}})", "false"},
        {show<&Parser::isDumpGraphEnabled>, "false", R"({"debug_settings": {"dump_graph": "on"}})",
         "true"},
        {show<&Parser::isDumpGraphEnabled>, "false", R"({"debug_settings": {"dump_graph": true}})",
         "false"},
        {show<&Parser::getTaskScheduler>, "\"polling\"",
         R"({"service_settings": {"task_scheduler": "other"}})", "\"other\""},
        {show<&Parser::getMaxGraphNumPerDevice>, "2",
         R"({"scheduler_config": [{"subclass": 0, "max_graph_per_device": 9}]})", "9"},
        {show<&Parser::getDeviceVid>, "31826", R"({"device_settings": {"device_vid": "0x1F"}})",
         "31"},
        {show<&Parser::getDeviceVid>, "31826", R"({"device_settings": {"device_vid": "zorvan"}})",
         "0"},
        {show<&Parser::getDevicePid>, "57754",
         R"({"device_settings": {"device_pid": "0x123456789"}})", "0"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.json);
        Parser parser;
        EXPECT_EQ(row.show(parser), row.byDefault);
        ASSERT_TRUE(parser.appendConfigFile(installDir().write("newer", row.json), true));
        EXPECT_EQ(row.show(parser), row.value);
    }
}

TEST(ServiceConfigParserTest, UsersOwnFileCannotWidenTheAccess) {
    const TempDir home;
    Parser parser;
    EXPECT_EQ(parser.getValidUserGroup(), "users");
    const auto fileOf = [](const TempDir& directory, const std::string& group) {
        return directory.write("own", R"({"security_settings": {"user_group": ")" + group + "\"}}");
    };
    ASSERT_TRUE(parser.appendConfigFile(fileOf(installDir(), "staff"), true));
    ASSERT_TRUE(parser.appendConfigFile(fileOf(home, "everyone"), false));
    EXPECT_EQ(parser.getValidUserGroup(), "staff");
}

}  // namespace
}  // namespace kelm
