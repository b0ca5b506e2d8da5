#include "config/ServiceConfigParser.h"

#include "InstallDir.h"

namespace kelm {
namespace {

using Parser = ServiceConfigParser;

TEST(ServiceConfigParserTest, ShippedFileHasEveryKeyWithItsDefaultButThePlacement) {
    const std::string shipped = readText(KELM_SOURCE_DIR "/config/kelm_service.config");
    for (const ConfigKey& key : kConfigKeys) {
        const std::string path = key.path;
        const std::string name = path.substr(path.rfind('.') + 1);
        const bool isPlain =
            key.kind <= ConfigKind::kBoolean || key.kind == ConfigKind::kTags;  // without quotes
        const std::string quote = isPlain ? "" : "\"";
        const std::string value = name == "shared_scheduler" ? "adaptive" : key.byDefault;
        EXPECT_THAT(shipped, HasSubstr("\"" + name + "\": " + quote + value + quote));
    }
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
        {show<&Parser::getSharedScheduler>, "\"squeeze2\"",
         R"({"device_settings": {"shared_scheduler": "adaptive"}})", "\"adaptive\""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.json);
        Parser parser;
        EXPECT_EQ(row.show(parser), row.byDefault);
        ASSERT_TRUE(parser.appendConfigFile(installDir().write("newer", row.json), true));
        EXPECT_EQ(row.show(parser), row.value);
    }
}

// These getters lie below the table.
TEST(ServiceConfigParserTest, EachSwitchOfTheLogHasItsBitAndTheDefaultOfTheTable) {
    const std::map<std::string, unsigned int> bits = {
        {"log_process", 1},   {"log_debug", 2},  {"log_info", 4},   {"log_warn", 8},
        {"log_frequent", 16}, {"log_error", 64}, {"log_fatal", 128}};
    const Parser none;
    const unsigned int mask = getLogLevel(&none);
    for (const ConfigKey& key : kConfigKeys) {
        const std::string path = key.path;
        if (!path.starts_with("log_level.")) continue;
        SCOPED_TRACE(path);
        const std::string name = path.substr(10);
        const bool isOn = std::string(key.byDefault) == "on";
        const std::string turned =
            "{\"log_level\": {\"" + name + (isOn ? "\": \"off\"}}" : "\": \"on\"}}");
        Parser parser;
        ASSERT_TRUE(parser.appendConfigFile(installDir().write("turned", turned), true));
        EXPECT_EQ(getLogLevel(&parser) ^ mask, bits.at(name));
        EXPECT_EQ((mask & bits.at(name)) != 0, isOn);
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
