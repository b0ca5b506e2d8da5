#pragma once

#include <map>
#include <string>
#include <vector>

#include "config/ConfigKeys.h"
#include "utils/ConfigParser.h"
#include "utils/Singleton.h"

namespace kelm {

// A getter for each key of ConfigKeys.h, in the same order. It looks into the loaded files at each
// call, never fails and never throws, and tells what is configured: bounds are for the components,
// which read their values when they are built.
//
// Threads: as ConfigParser.
class ServiceConfigParser : public ConfigParser, public Singleton<ServiceConfigParser> {
 public:
    struct File {
        std::string path;
        bool reportMissing;
    };
    // What the service reads, a later file over an earlier one: that of the install directory, the
    // user's own, those of the command line.
    static std::vector<File> listFiles(const std::string& installDir,
                                       const std::vector<std::string>& furtherFiles);

    // One key a line.
    // clang-format off

    // service_settings
    int getWaitSecondsBeforeExit() const { return integer("service_settings.wait_seconds_before_exit"); }
    int getMaxCachedGraphNumber() const { return integer("service_settings.max_cached_graph_number"); }
    int getMaxInferenceNumber() const { return integer("service_settings.max_inference_number"); }
    int getMaxGraphNumber() const { return integer("service_settings.max_graph_number"); }
    int getServerMaxTaskNumber() const { return integer("service_settings.server_max_task_number"); }
    int getClientMaxTaskNumber() const { return integer("service_settings.client_max_task_number"); }
    int getTevoLogLevel() const { return integer("service_settings.tevo_log_level"); }
    int getUpdateThermalInterval() const { return integer("service_settings.update_thermal_interval"); }
    int getUpdateInferTimeInterval() const { return integer("service_settings.update_timetaken_interval"); }
    int getCommonTimeout() const { return integer("service_settings.common_timeout"); }
    int getAllocGraphTimeout() const { return integer("service_settings.alloc_graph_timeout"); }
    std::string getTaskScheduler() const { return text("service_settings.task_scheduler"); }

    // fake_device_settings
    bool isFakeDeviceEnabled() const { return boolean("fake_device_settings.enable_fake_device"); }
    int getFakeDeviceNum() const { return integer("fake_device_settings.fake_device_number"); }
    int getAllocGraphLatency() const { return integer("fake_device_settings.alloc_graph_latency"); }
    int getLoadTensorLatency() const { return integer("fake_device_settings.load_tensor_latency"); }
    int getGetResultLatency() const { return integer("fake_device_settings.get_result_latency"); }
    int getFakeDeviceQueueCapacity() const { return integer("fake_device_settings.queue_capacity"); }
    int getFakeDeviceWaitTimeout() const { return integer("fake_device_settings.wait_timeout"); }
    double getFakeDeviceLatencyStddev() const { return number("fake_device_settings.latency_distribution_stddev"); }

    // debug_settings
    bool isDebugServiceEnabled() const { return boolean("debug_settings.debug_service"); }
    bool isTracerEnabled() const { return boolean("debug_settings.enable_tracer"); }
    bool isPlacementLogEnabled() const { return boolean("debug_settings.placement_log"); }
    bool isDumpGraphEnabled() const { return isOn("debug_settings.dump_graph"); }
    std::string getGraphDumpPath() const { return directory("debug_settings.dump_graph_path"); }
    std::string getGraphIdentity() const { return text("debug_settings.graph_identity"); }
    std::string getTensorContainer() const { return text("debug_settings.tensor_container"); }

    // debug_settings.info_printer
    bool isInfoPrinterEnabled() const { return boolean("debug_settings.info_printer.enable"); }
    int getInfoPrintInterval() const { return integer("debug_settings.info_printer.print_interval"); }
    int getFpsBufferTimeLength() const { return integer("debug_settings.info_printer.fps_buffer"); }
    bool isPrintClientFpsEnabled() const { return isOn("debug_settings.info_printer.client_fps"); }
    bool isPrintDeviceFpsEnabled() const { return isOn("debug_settings.info_printer.device_fps"); }
    bool isPrintServiceFpsEnabled() const { return isOn("debug_settings.info_printer.service_fps"); }
    bool isPrintGraphFpsEnabled() const { return isOn("debug_settings.info_printer.graph_fps"); }
    bool isPrintDeviceUtilizationEnabled() const { return isOn("debug_settings.info_printer.device_utilization"); }
    bool isPrintMemoryUsageEnabled() const { return isOn("debug_settings.info_printer.memory_usage"); }
    std::string getClientSnapshotMode() const { return text("debug_settings.info_printer.client_snapshot_mode"); }
    std::string getClientSnapshotStyle() const { return text("debug_settings.info_printer.client_snapshot_style"); }
    std::string getDeviceSnapshotMode() const { return text("debug_settings.info_printer.device_snapshot_mode"); }
    std::string getDeviceSnapshotStyle() const { return text("debug_settings.info_printer.device_snapshot_style"); }
    std::string getGraphSnapshotMode() const { return text("debug_settings.info_printer.graph_snapshot_mode"); }
    std::string getGraphSnapshotStyle() const { return text("debug_settings.info_printer.graph_snapshot_style"); }
    std::string getTaskSnapshotMode() const { return text("debug_settings.info_printer.task_snapshot_mode"); }
    std::string getTaskSnapshotStyle() const { return text("debug_settings.info_printer.task_snapshot_style"); }

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
    std::string getValidUserGroup() const { return group("security_settings.user_group"); }

    // device_settings; of the hexadecimal texts 0 for one that is none or does not fit
    int getDeviceVid() const { return hexadecimal("device_settings.device_vid"); }
    int getDevicePid() const { return hexadecimal("device_settings.device_pid"); }
    std::string getSharedScheduler() const { return text("device_settings.shared_scheduler"); }

    // scheduler_config, one element a device subclass
    int getMaxGraphNumPerDevice(int subclass) const { return ofSubclass("scheduler_config.max_graph_per_device", subclass); }
    int getMaxPendingTaskNum(int subclass) const { return ofSubclass("scheduler_config.max_task_number_switch_out", subclass); }
    int getMaxPendingCycle(int subclass) const { return ofSubclass("scheduler_config.max_cycle_switch_out", subclass); }
    int getStreamDeviceNumber(int subclass) const { return ofSubclass("scheduler_config.stream_device_number", subclass); }
    int getDeviceScheduleInterval(int subclass) const { return ofSubclass("scheduler_config.device_schedule_interval", subclass); }
    // clang-format on

    // Devices set aside for each tag. False if a value is no number, with what came before it.
    bool getGraphTagMap(int subclass, std::map<std::string, unsigned long>& tags) const;

    // The lock files from which other processes read the service's phase; no keys.
    std::string getServiceAliveMutexPath() const;
    std::string getServiceReadyMutexPath() const;
    std::string getStartExitMutexPath() const;

 private:
    int integer(ConfigKeyOf<ConfigKind::kInteger> key) const;
    double number(ConfigKeyOf<ConfigKind::kNumber> key) const;
    bool boolean(ConfigKeyOf<ConfigKind::kBoolean> key) const;
    bool isOn(ConfigKeyOf<ConfigKind::kSwitch> key) const;
    std::string text(ConfigKeyOf<ConfigKind::kText> key) const;
    std::string directory(ConfigKeyOf<ConfigKind::kDirectory> key) const;
    std::string group(ConfigKeyOf<ConfigKind::kGroup> key) const;
    int hexadecimal(ConfigKeyOf<ConfigKind::kHexadecimal> key) const;
    int ofSubclass(ConfigKeyOf<ConfigKind::kInteger> key, int subclass) const;
};

}  // namespace kelm
