#include "config/ServiceConfigParser.h"

#include "InstallDir.h"

namespace kelm {
namespace {

using ::testing::HasSubstr;
using Parser = ServiceConfigParser;

std::string asText(const std::string& value) { return value; }
std::string asText(bool value) { return value ? "true" : "false"; }
std::string asText(int value) { return std::to_string(value); }
std::string asText(double value) { return std::to_string(value); }

template <auto Getter>
std::string show(const Parser& parser) {
    if constexpr (std::is_invocable_v<decltype(Getter), const Parser&, int>) {
        return asText((parser.*Getter)(0));
    } else {
        return asText((parser.*Getter)());
    }
}

struct KeyRow {
    std::string key;
    std::string (*getter)(const Parser&);
    std::string byDefault;
    std::string json;  // value in an overriding file
    std::string overridden;
};

// clang-format off
const KeyRow kKeys[] = {
    {"service_settings.wait_seconds_before_exit", show<&Parser::getWaitSecondsBeforeExit>, "-1", "6", "6"},
    {"service_settings.max_cached_graph_number", show<&Parser::getMaxCachedGraphNumber>, "4", "11", "11"},
    {"service_settings.max_inference_number", show<&Parser::getMaxInferenceNumber>, "4", "11", "11"},
    {"service_settings.max_graph_number", show<&Parser::getMaxGraphNumber>, "0", "7", "7"},
    {"service_settings.server_max_task_number", show<&Parser::getServerMaxTaskNumber>, "300", "307", "307"},
    {"service_settings.client_max_task_number", show<&Parser::getClientMaxTaskNumber>, "0", "7", "7"},
    {"service_settings.tevo_log_level", show<&Parser::getTevoLogLevel>, "4", "11", "11"},
    {"service_settings.update_thermal_interval", show<&Parser::getUpdateThermalInterval>, "2000", "2007", "2007"},
    {"service_settings.update_timetaken_interval", show<&Parser::getUpdateInferTimeInterval>, "1000", "1007", "1007"},
    {"service_settings.common_timeout", show<&Parser::getCommonTimeout>, "1", "8", "8"},
    {"service_settings.alloc_graph_timeout", show<&Parser::getAllocGraphTimeout>, "12", "19", "19"},
    {"service_settings.task_scheduler", show<&Parser::getTaskScheduler>, "polling", "\"other\"", "other"},
    {"fake_device_settings.enable_fake_device", show<&Parser::isFakeDeviceEnabled>, "false", "true", "true"},
    {"fake_device_settings.fake_device_number", show<&Parser::getFakeDeviceNum>, "3", "10", "10"},
    {"fake_device_settings.alloc_graph_latency", show<&Parser::getAllocGraphLatency>, "5", "12", "12"},
    {"fake_device_settings.load_tensor_latency", show<&Parser::getLoadTensorLatency>, "5", "12", "12"},
    {"fake_device_settings.get_result_latency", show<&Parser::getGetResultLatency>, "10", "17", "17"},
    {"fake_device_settings.queue_capacity", show<&Parser::getFakeDeviceQueueCapacity>, "10", "17", "17"},
    {"fake_device_settings.wait_timeout", show<&Parser::getFakeDeviceWaitTimeout>, "5000", "5007", "5007"},
    {"fake_device_settings.latency_distribution_stddev", show<&Parser::getFakeDeviceLatencyStddev>, "1.000000", "2.5", "2.500000"},
    {"debug_settings.debug_service", show<&Parser::isDebugServiceEnabled>, "true", "false", "false"},
    {"debug_settings.enable_tracer", show<&Parser::isTracerEnabled>, "false", "true", "true"},
    {"debug_settings.dump_graph", show<&Parser::isDumpGraphEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.dump_graph_path", show<&Parser::getGraphDumpPath>, "", "\"other\"", "other"},
    {"debug_settings.graph_identity", show<&Parser::getGraphIdentity>, "hash", "\"other\"", "other"},
    {"debug_settings.tensor_container", show<&Parser::getTensorContainer>, "default", "\"other\"", "other"},
    {"debug_settings.info_printer.enable", show<&Parser::isInfoPrinterEnabled>, "true", "false", "false"},
    {"debug_settings.info_printer.print_interval", show<&Parser::getInfoPrintInterval>, "5000", "5007", "5007"},
    {"debug_settings.info_printer.fps_buffer", show<&Parser::getFpsBufferTimeLength>, "10000", "10007", "10007"},
    {"debug_settings.info_printer.client_fps", show<&Parser::isPrintClientFpsEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.info_printer.device_fps", show<&Parser::isPrintDeviceFpsEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.info_printer.service_fps", show<&Parser::isPrintServiceFpsEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.info_printer.graph_fps", show<&Parser::isPrintGraphFpsEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.info_printer.device_utilization", show<&Parser::isPrintDeviceUtilizationEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.info_printer.memory_usage", show<&Parser::isPrintMemoryUsageEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.info_printer.client_snapshot_mode", show<&Parser::getClientSnapshotMode>, "none", "\"other\"", "other"},
    {"debug_settings.info_printer.client_snapshot_style", show<&Parser::getClientSnapshotStyle>, "table", "\"other\"", "other"},
    {"debug_settings.info_printer.device_snapshot_mode", show<&Parser::getDeviceSnapshotMode>, "none", "\"other\"", "other"},
    {"debug_settings.info_printer.device_snapshot_style", show<&Parser::getDeviceSnapshotStyle>, "table", "\"other\"", "other"},
    {"debug_settings.info_printer.graph_snapshot_mode", show<&Parser::getGraphSnapshotMode>, "none", "\"other\"", "other"},
    {"debug_settings.info_printer.graph_snapshot_style", show<&Parser::getGraphSnapshotStyle>, "table", "\"other\"", "other"},
    {"debug_settings.info_printer.task_snapshot_mode", show<&Parser::getTaskSnapshotMode>, "none", "\"other\"", "other"},
    {"debug_settings.info_printer.task_snapshot_style", show<&Parser::getTaskSnapshotStyle>, "list", "\"other\"", "other"},
    {"debug_settings.debug_process.message_dispatcher", show<&Parser::isMessageDispatcherDebugProcessEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.debug_process.client_manager", show<&Parser::isClientManagerDebugProcessEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.debug_process.task_manager", show<&Parser::isTaskManagerDebugProcessEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.debug_process.task_scheduler", show<&Parser::isTaskSchedulerDebugProcessEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.debug_process.device_manager", show<&Parser::isDeviceManagerDebugProcessEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.debug_process.device_scheduler", show<&Parser::isDeviceSchedulerDebugProcessEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.debug_process.device", show<&Parser::isDeviceDebugProcessEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.debug_process.device_work_thread", show<&Parser::isDeviceWorkThreadDebugProcessEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.debug_process.graph_manager", show<&Parser::isGraphManagerDebugProcessEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.debug_process.result_dispatcher", show<&Parser::isResultDispatcherDebugProcessEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.debug_process.change_operation", show<&Parser::isStatusChangeOperationDebugProcessEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.debug_process.graph_mapper", show<&Parser::isGraphMapperDebugProcessEnabled>, "false", "\"on\"", "true"},
    {"debug_settings.debug_process.info_printer", show<&Parser::isInfoPrinterDebugProcessEnabled>, "false", "\"on\"", "true"},
    {"security_settings.user_group", show<&Parser::getValidUserGroup>, "users", "\"other\"", "other"},
    {"device_settings.device_vid", show<&Parser::getDeviceVid>, "31826", "\"0x1F\"", "31"},
    {"device_settings.device_pid", show<&Parser::getDevicePid>, "57754", "\"0x1F\"", "31"},
    {"scheduler_config.max_graph_per_device", show<&Parser::getMaxGraphNumPerDevice>, "2", "9", "9"},
    {"scheduler_config.max_task_number_switch_out", show<&Parser::getMaxPendingTaskNum>, "20", "27", "27"},
    {"scheduler_config.max_cycle_switch_out", show<&Parser::getMaxPendingCycle>, "3", "10", "10"},
    {"scheduler_config.stream_device_number", show<&Parser::getStreamDeviceNumber>, "0", "7", "7"},
    {"scheduler_config.device_schedule_interval", show<&Parser::getDeviceScheduleInterval>, "5000", "5007", "5007"},
};
// clang-format on

// The JSON file that sets one dotted key, below the element of subclass 0 for the scheduler's keys.
std::string fileWith(const std::string& key, const std::string& json) {
    const size_t dot = key.find('.');
    if (dot == std::string::npos) return "{\"" + key + "\": " + json + "}";
    const std::string rest = fileWith(key.substr(dot + 1), json);
    if (!key.starts_with("scheduler_config"))
        return "{\"" + key.substr(0, dot) + "\": " + rest + "}";
    return "{\"scheduler_config\": [{\"subclass\": 0, " + rest.substr(1) + "]}";
}

std::string readFile(const std::filesystem::path& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

const std::filesystem::path kRoot = std::filesystem::path(__FILE__).parent_path() / "../..";

TEST(ServiceConfigParserTest, GetterReadsTheWrongKeyOrDefault) {
    for (const KeyRow& row : kKeys) {
        SCOPED_TRACE(row.key);
        Parser parser;
        EXPECT_EQ(row.getter(parser), row.byDefault);
        ASSERT_TRUE(
            parser.appendConfigFile(installDir().write("older", "{\"unrelated\": 1}"), true));
        EXPECT_EQ(row.getter(parser), row.byDefault);
        const std::string newer = installDir().write("newer", fileWith(row.key, row.json));
        ASSERT_TRUE(parser.appendConfigFile(newer, true));
        EXPECT_EQ(row.getter(parser), row.overridden);
    }
}

TEST(ServiceConfigParserTest, ShippedFileOrManualForgetsAKeyOrChangesADefault) {
    const std::string text = readFile(kRoot / "config/kelm_service.config");
    const std::string manual = readFile(kRoot / "docs/configuration.md");
    Parser parser;
    ASSERT_TRUE(parser.appendConfigFile(installDir().write("shipped", text), true));
    for (const KeyRow& row : kKeys) {
        SCOPED_TRACE(row.key);
        EXPECT_EQ(row.getter(parser), row.byDefault);
        const std::string name = row.key.substr(row.key.rfind('.') + 1);
        EXPECT_THAT(text, HasSubstr("\"" + name + "\""));
        EXPECT_THAT(manual, HasSubstr("`" + name + "`"));
    }
}

TEST(ServiceConfigParserTest, UsersFileWidensTheAccess) {
    const TempDir home;
    Parser parser;
    const std::string key = "security_settings.user_group";
    ASSERT_TRUE(
        parser.appendConfigFile(installDir().write("base", fileWith(key, "\"staff\"")), true));
    ASSERT_TRUE(parser.appendConfigFile(home.write("own", fileWith(key, "\"everyone\"")), false));
    EXPECT_EQ(parser.getValidUserGroup(), "staff");
}

TEST(ServiceConfigParserTest, BadDeviceIdIsTakenForANumber) {
    const TempDir dir;
    for (const char* json : {"\"zorvan\"", "\"\"", "\"0x123456789\""}) {
        SCOPED_TRACE(json);
        Parser parser;
        ASSERT_TRUE(parser.appendConfigFile(
            dir.write("config", fileWith("device_settings.device_vid", json)), true));
        EXPECT_EQ(parser.getDeviceVid(), 0);
    }
}

TEST(ServiceConfigParserTest, SwitchIsTurnedOnByJsonTrue) {
    const TempDir dir;
    Parser parser;
    ASSERT_TRUE(parser.appendConfigFile(
        dir.write("config", fileWith("debug_settings.dump_graph", "true")), true));
    EXPECT_FALSE(parser.isDumpGraphEnabled());
}

}  // namespace
}  // namespace kelm
