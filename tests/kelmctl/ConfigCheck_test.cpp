#include "tools/kelmctl/ConfigCheck.h"

#include "config/InstallDir.h"
#include "tools/kelmctl/ConfigCommand.h"
#include "tools/kelmctl/ConfigValues.h"

namespace kelm::ctl {
namespace {

std::vector<ConfigFile> asFile(const std::string& text) {
    return loadConfigFiles({installDir().write("checked", text)});
}

TEST(ConfigCheckTest, EachTrapIsToldWithItsPlaceAndNothingElse) {
    const struct {
        const char* text;
        int line, column;
        const char* words;  // null: nothing is found
    } rows[] = {
        {R"({"service_settings": {"max_graph_number": 0, "task_scheduler": "FCFS"}})", 0, 0,
         nullptr},
        {R"({"service_settings": {"max_graph_number": "7"}} // "7)", 0, 0, nullptr},
        {R"({"scheduler_config": [{"subclass": 3, "graph_tag_map": {"x": 2}}]})", 0, 0, nullptr},
        {R"({"security_settings": {"user_group": "root"}})", 0, 0, nullptr},
        // No JSON, or none that is used.
        {"{\n\"a\": \"http://x\"}", 2, 12, "two slashes begin a comment"},
        {"{\"ä\": 1,\t}", 1, 10, "expected a name in quotes"},
        {"", 1, 1, "expected a value"},
        {"{}", 0, 0, "it has no keys"},
        {"{\"a\": \"\xff\"}", 0, 0, "no JSON to it"},
        {"[1]", 1, 1, "no key is found in an array"},
        // Keys.
        {R"({"service_settings": {"max_grpah_number": 1}})", 1, 23,
         "service_settings.max_graph_number\": c"},
        {R"({"service_setting": {}})", 1, 2, "the nearest is \"service_settings\""},
        {R"({"max_graph_number": 1})", 1, 2, "move \"max_graph_number\" into \"service_settings\""},
        {R"({"log_level": {"log_warn": "on", "log_warn": "off"}})", 1, 34, "twice"},
        {R"({"log_level": "on"})", 1, 15, "none of its keys is found"},
        // Types.
        {R"({"service_settings": {"max_graph_number": 1.0}})", 1, 43, "passed over; write a whole"},
        {R"({"service_settings": {"max_graph_number": 3000000000}})", 1, 43, "passed over"},
        {R"({"service_settings": {"task_scheduler": {}}})", 1, 41,
         "is an object, which counts as empty"},
        {R"({"debug_settings": {"debug_service": "on"}})", 1, 38,
         "passed over; write true or false"},
        {R"({"log_level": {"log_debug": true}})", 1, 29, "counts as off; write \"on\" or \"off\""},
        {R"({"device_settings": {"device_vid": 1234}})", 1, 36, "counts as hexadecimal"},
        {R"({"device_settings": {"device_vid": "zorvan"}})", 1, 36, "counts as 0"},
        // Values.
        {R"({"service_settings": {"max_inference_number": -3}})", 1, 47,
         "counts as 1; write 1 or more"},
        {R"({"fake_device_settings": {"wait_timeout": 0}})", 1, 43,
         "counts as 10000; write 1000 or"},
        {R"({"fake_device_settings": {"wait_timeout": 999}})", 1, 43, "counts as 0; write 1000 or"},
        {R"({"service_settings": {"task_scheduler": "lifo"}})", 1, 41, "\"polling\", \"fcfs\""},
        {R"({"debug_settings": {"graph_identity": "Name"}})", 1, 39, "counts as hash"},
        {R"({"debug_settings": {"dump_graph_path": "/nowhere"}})", 1, 40,
         "a directory that is there"},
        {R"({"security_settings": {"user_group": "no such group"}})", 1, 38, "groupadd"},
        {R"({"service_settings": {"max_cached_graph_number": 1}})", 0, 0, "counts as 2, the value"},
        // Subclasses.
        {R"({"scheduler_config": {"subclass": 0}})", 1, 22, "array of objects"},
        {R"({"scheduler_config": [{"max_cycle_switch_out": 3}]})", 1, 23, "add \"subclass\": 0"},
        {R"({"scheduler_config": [{"subclass": 1, "max_graph_per_device": 3}]})", 1, 63,
         "counts as 2"},
        {R"({"scheduler_config": [{"subclass": 1, "graph_tag_map": {"x": "y"}}]})", 1, 62,
         "from starting"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const std::vector<ConfigFinding> findings = checkConfigFiles(asFile(row.text));
        ASSERT_EQ(findings.size(), row.words != nullptr ? 1U : 0U);
        if (row.words == nullptr) continue;
        EXPECT_THAT(findings[0].text, HasSubstr(row.words));
        EXPECT_EQ(findings[0].place.line, row.line);
        EXPECT_EQ(findings[0].place.column, row.column);
    }
}

TEST(ConfigValuesTest, TheLastUsableValueCountsAndTellsItsFile) {
    const TempDir home;
    const std::vector<ConfigFile> files = loadConfigFiles({installDir().write("installed", R"({
        "service_settings": {"max_graph_number": 5, "max_inference_number": 8},
        "security_settings": {"user_group": "staff"},
        "scheduler_config": [{"subclass": 0, "graph_tag_map": {"x": 2}}]})"),
                                                           home.write("own", R"({
        "service_settings": {"max_graph_number": "none", "max_inference_number": 0},
        "security_settings": {"user_group": "everyone"},
        "scheduler_config": [{"subclass": 0, "graph_tag_map": {}},
                             {"subclass": 2, "max_graph_per_device": 9}]})")});
    const std::vector<ConfigValue> values = readConfigValues(files);
    const struct {
        const char* key;
        const char* value;
        std::string file;
    } rows[] = {
        {"service_settings.max_graph_number", "5", files[0].path()},
        {"service_settings.max_inference_number", "1", files[1].path()},
        {"service_settings.server_max_task_number", "300", ""},
        {"security_settings.user_group", "staff", files[0].path()},
        {"scheduler_config[0].graph_tag_map", "{}", files[1].path()},
        {"scheduler_config[0].max_graph_per_device", "2", ""},
        {"scheduler_config[2].max_graph_per_device", "2", files[1].path()},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.key);
        const auto found = std::ranges::find(values, row.key, &ConfigValue::key);
        ASSERT_NE(found, values.end());
        EXPECT_EQ(found->value, row.value);
        EXPECT_EQ(found->file, row.file);
    }
}

}  // namespace
}  // namespace kelm::ctl
