#pragma once

#include <map>
#include <string>

#include "utils/ConfigParser.h"
#include "utils/Singleton.h"

namespace kelm {

// Every key of the service with its default, grouped and ordered as in docs/configuration.md. A
// getter looks into the loaded files at each call, never fails and never throws; a component reads
// its values when it is built.
//
// Threads: as ConfigParser.
class ServiceConfigParser : public ConfigParser, public Singleton<ServiceConfigParser> {
 public:
    // A table, one key a line.
    // clang-format off

    // service_settings
    int getWaitSecondsBeforeExit() const { return integer("service_settings.wait_seconds_before_exit", -1); }
    int getMaxCachedGraphNumber() const { return integer("service_settings.max_cached_graph_number", 4); }
    int getMaxInferenceNumber() const { return integer("service_settings.max_inference_number", 4); }
    int getMaxGraphNumber() const { return integer("service_settings.max_graph_number", 0); }
    int getServerMaxTaskNumber() const { return integer("service_settings.server_max_task_number", 300); }
    int getClientMaxTaskNumber() const { return integer("service_settings.client_max_task_number", 0); }
    int getTevoLogLevel() const { return integer("service_settings.tevo_log_level", 4); }
    int getUpdateThermalInterval() const { return integer("service_settings.update_thermal_interval", 2000); }
    int getUpdateInferTimeInterval() const { return integer("service_settings.update_timetaken_interval", 1000); }
    int getCommonTimeout() const { return integer("service_settings.common_timeout", 1); }
    int getAllocGraphTimeout() const { return integer("service_settings.alloc_graph_timeout", 12); }
    std::string getTaskScheduler() const { return text("service_settings.task_scheduler", "polling"); }

    // fake_device_settings
    bool isFakeDeviceEnabled() const { return boolean("fake_device_settings.enable_fake_device", false); }
    int getFakeDeviceNum() const { return integer("fake_device_settings.fake_device_number", 3); }
    int getAllocGraphLatency() const { return integer("fake_device_settings.alloc_graph_latency", 5); }
    int getLoadTensorLatency() const { return integer("fake_device_settings.load_tensor_latency", 5); }
    int getGetResultLatency() const { return integer("fake_device_settings.get_result_latency", 10); }
    int getFakeDeviceQueueCapacity() const { return integer("fake_device_settings.queue_capacity", 10); }
    int getFakeDeviceWaitTimeout() const { return integer("fake_device_settings.wait_timeout", 5000); }
    double getFakeDeviceLatencyStddev() const { return parseDoubleFromConfigList("fake_device_settings.latency_distribution_stddev", 1.0); }

    // debug_settings
    bool isDebugServiceEnabled() const { return boolean("debug_settings.debug_service", true); }
    bool isTracerEnabled() const { return boolean("debug_settings.enable_tracer", false); }
    bool isDumpGraphEnabled() const { return isOn("debug_settings.dump_graph"); }
    std::string getGraphDumpPath() const { return text("debug_settings.dump_graph_path", ""); }
    std::string getGraphIdentity() const { return text("debug_settings.graph_identity", "hash"); }
    std::string getTensorContainer() const { return text("debug_settings.tensor_container", "default"); }

    // debug_settings.info_printer
    bool isInfoPrinterEnabled() const { return boolean("debug_settings.info_printer.enable", true); }
    int getInfoPrintInterval() const { return integer("debug_settings.info_printer.print_interval", 5000); }
    int getFpsBufferTimeLength() const { return integer("debug_settings.info_printer.fps_buffer", 10000); }
    bool isPrintClientFpsEnabled() const { return isOn("debug_settings.info_printer.client_fps"); }
    bool isPrintDeviceFpsEnabled() const { return isOn("debug_settings.info_printer.device_fps"); }
    bool isPrintServiceFpsEnabled() const { return isOn("debug_settings.info_printer.service_fps"); }
    bool isPrintGraphFpsEnabled() const { return isOn("debug_settings.info_printer.graph_fps"); }
    bool isPrintDeviceUtilizationEnabled() const { return isOn("debug_settings.info_printer.device_utilization"); }
    bool isPrintMemoryUsageEnabled() const { return isOn("debug_settings.info_printer.memory_usage"); }
    std::string getClientSnapshotMode() const { return text("debug_settings.info_printer.client_snapshot_mode", "none"); }
    std::string getClientSnapshotStyle() const { return text("debug_settings.info_printer.client_snapshot_style", "table"); }
    std::string getDeviceSnapshotMode() const { return text("debug_settings.info_printer.device_snapshot_mode", "none"); }
    std::string getDeviceSnapshotStyle() const { return text("debug_settings.info_printer.device_snapshot_style", "table"); }
    std::string getGraphSnapshotMode() const { return text("debug_settings.info_printer.graph_snapshot_mode", "none"); }
    std::string getGraphSnapshotStyle() const { return text("debug_settings.info_printer.graph_snapshot_style", "table"); }
    std::string getTaskSnapshotMode() const { return text("debug_settings.info_printer.task_snapshot_mode", "none"); }
    std::string getTaskSnapshotStyle() const { return text("debug_settings.info_printer.task_snapshot_style", "list"); }

    // debug_settings.debug_process
    bool isMessageDispatcherDebugProcessEnabled() const { return isOn("debug_settings.debug_process.message_dispatcher"); }
    bool isClientManagerDebugProcessEnabled() const { return isOn("debug_settings.debug_process.client_manager"); }
    bool isTaskManagerDebugProcessEnabled() const { return isOn("debug_settings.debug_process.task_manager"); }
    bool isTaskSchedulerDebugProcessEnabled() const { return isOn("debug_settings.debug_process.task_scheduler"); }
    bool isDeviceManagerDebugProcessEnabled() const { return isOn("debug_settings.debug_process.device_manager"); }
    bool isDeviceSchedulerDebugProcessEnabled() const { return isOn("debug_settings.debug_process.device_scheduler"); }
    bool isDeviceDebugProcessEnabled() const { return isOn("debug_settings.debug_process.device"); }
    bool isDeviceWorkThreadDebugProcessEnabled() const { return isOn("debug_settings.debug_process.device_work_thread"); }
    bool isGraphManagerDebugProcessEnabled() const { return isOn("debug_settings.debug_process.graph_manager"); }
    bool isResultDispatcherDebugProcessEnabled() const { return isOn("debug_settings.debug_process.result_dispatcher"); }
    bool isStatusChangeOperationDebugProcessEnabled() const { return isOn("debug_settings.debug_process.change_operation"); }
    bool isGraphMapperDebugProcessEnabled() const { return isOn("debug_settings.debug_process.graph_mapper"); }
    bool isInfoPrinterDebugProcessEnabled() const { return isOn("debug_settings.debug_process.info_printer"); }

    // security_settings: only the file under the install directory decides, so that a user's own
    // file cannot widen the access to the service
    std::string getValidUserGroup() const { return parseStringFromDefaultConfigFile("security_settings.user_group", "users"); }

    // device_settings: hexadecimal texts; 0 for a text that is none or does not fit
    int getDeviceVid() const { return hexadecimal("device_settings.device_vid", "0x7c52"); }
    int getDevicePid() const { return hexadecimal("device_settings.device_pid", "0xe19a"); }

    // scheduler_config, one element a device subclass
    int getMaxGraphNumPerDevice(int subclass) const { return ofSubclass("max_graph_per_device", subclass, 2); }
    int getMaxPendingTaskNum(int subclass) const { return ofSubclass("max_task_number_switch_out", subclass, 20); }
    int getMaxPendingCycle(int subclass) const { return ofSubclass("max_cycle_switch_out", subclass, 3); }
    int getStreamDeviceNumber(int subclass) const { return ofSubclass("stream_device_number", subclass, 0); }
    int getDeviceScheduleInterval(int subclass) const { return ofSubclass("device_schedule_interval", subclass, 5000); }
    // clang-format on

    // Devices set aside for each tag. False if a value is no number, with what came before it.
    bool getGraphTagMap(int subclass, std::map<std::string, unsigned long>& tags) const;

    // The lock files from which other processes read the service's phase; no keys.
    std::string getServiceAliveMutexPath() const;
    std::string getServiceReadyMutexPath() const;
    std::string getStartExitMutexPath() const;

 private:
    int integer(const char* key, int def) const { return parseIntegerFromConfigList(key, def); }
    bool boolean(const char* key, bool def) const { return parseBooleanFromConfigList(key, def); }
    std::string text(const char* key, const char* def) const {
        return parseStringFromConfigList(key, def);
    }
    bool isOn(const char* key) const { return isSwitchTurnedOn(key, "off"); }
    int hexadecimal(const char* key, const char* def) const;
    int ofSubclass(const char* key, int subclass, int def) const;
};

}  // namespace kelm
