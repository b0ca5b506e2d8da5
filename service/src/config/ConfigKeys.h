#pragma once

#include <limits>
#include <stdexcept>
#include <string_view>

namespace kelm {

enum class ConfigKind {
    kInteger,
    kNumber,
    kBoolean,
    kSwitch,       // on for the text "on" alone
    kText,         // one of its choices, if it has any
    kDirectory,    // a text; where there is no such directory it counts as empty
    kHexadecimal,  // a text; 0 where it is none
    kGroup,        // a text; read from the file under the install directory only
    kTags,         // an object of names and numbers
};

// What the service takes in place of a number that it does not use as it is.
struct ConfigBounds {
    struct Low {
        int below = std::numeric_limits<int>::min();  // a smaller number counts as `instead`
        int instead = 0;
    };
    Low low[2] = {};  // the first that fits counts
    int most = std::numeric_limits<int>::max();

    template <class Number>
    constexpr Number apply(Number value) const {
        for (const Low& row : low) {
            if (value < static_cast<Number>(row.below)) return static_cast<Number>(row.instead);
        }
        return value > static_cast<Number>(most) ? static_cast<Number>(most) : value;
    }
};

// The texts that mean something, and which of them any other one counts as.
struct ConfigChoices {
    std::string_view words = {};  // with a bar between each two; empty: any text
    const char* others = "";
    bool anyCase = false;
};

struct ConfigKey {
    const char* path;  // dotted; the first part alone is an array's name in "scheduler_config"
    ConfigKind kind;
    const char* byDefault;  // a text without quotes, all else as JSON has it
    const char* text;       // what it means, as docs/configuration.md has it
    ConfigBounds bounds = {};
    ConfigChoices choices = {};
};

constexpr const char* kSchedulerSection = "scheduler_config";
constexpr const char* kSubclassMember = "subclass";  // names an element of that section

// A limit below 0 is none, as 0 is.
constexpr ConfigBounds kNotBelowZero{{{0, 0}}};

// Every key of the service: the getters take their defaults from here, the components their bounds,
// kelmctl and the manual all of it. One key a line.
// clang-format off
constexpr ConfigKey kConfigKeys[] = {
    {"log_level.log_process", ConfigKind::kSwitch, "off", "step by step traces of the components under `debug_process`"},
    {"log_level.log_debug", ConfigKind::kSwitch, "off", "details"},
    {"log_level.log_info", ConfigKind::kSwitch, "on", "what the service does"},
    {"log_level.log_warn", ConfigKind::kSwitch, "on", "what deserves a look"},
    {"log_level.log_frequent", ConfigKind::kSwitch, "off", "one line per task"},
    {"log_level.log_error", ConfigKind::kSwitch, "on", "failures"},
    {"log_level.log_fatal", ConfigKind::kSwitch, "on", "failures that end the process"},

    {"service_settings.wait_seconds_before_exit", ConfigKind::kInteger, "-1", "seconds to stay after the last client has gone; below 0 the service never leaves by itself"},
    {"service_settings.max_cached_graph_number", ConfigKind::kInteger, "4", "graphs that a device may keep resident, active or not; never fewer than may run on it", {{{1, 1}}}},
    {"service_settings.max_inference_number", ConfigKind::kInteger, "4", "tasks in flight per worker", {{{1, 1}}}},
    {"service_settings.max_graph_number", ConfigKind::kInteger, "0", "limit on graphs in the service; 0 for none", kNotBelowZero},
    {"service_settings.server_max_task_number", ConfigKind::kInteger, "300", "limit on tasks waiting in the service; 0 for none", kNotBelowZero},
    {"service_settings.client_max_task_number", ConfigKind::kInteger, "0", "limit on tasks waiting per client; 0 for none", kNotBelowZero},
    {"service_settings.tevo_log_level", ConfigKind::kInteger, "4", "log level of the accelerator library"},
    {"service_settings.update_thermal_interval", ConfigKind::kInteger, "2000", "milliseconds between thermal readings; 0 for none", kNotBelowZero},
    {"service_settings.update_timetaken_interval", ConfigKind::kInteger, "1000", "milliseconds between readings of the device's inference time", kNotBelowZero},
    {"service_settings.common_timeout", ConfigKind::kInteger, "1", "the accelerator library's common timeout"},
    {"service_settings.alloc_graph_timeout", ConfigKind::kInteger, "12", "the accelerator library's timeout for allocating a graph"},
    {"service_settings.task_scheduler", ConfigKind::kText, "polling", "`polling` serves the clients of a graph in turn, `fcfs` in order of arrival; `balanced` does as `polling`, picks the worker that holds the fewest tasks, and shares `server_max_task_number` among the clients", {}, {"polling|fcfs|balanced", "polling", true}},

    {"fake_device_settings.enable_fake_device", ConfigKind::kBoolean, "false", "simulated devices instead of accelerators"},
    {"fake_device_settings.fake_device_number", ConfigKind::kInteger, "3", "how many", kNotBelowZero},
    {"fake_device_settings.alloc_graph_latency", ConfigKind::kInteger, "5", "milliseconds to allocate a graph", {{{0, 5}}}},
    {"fake_device_settings.load_tensor_latency", ConfigKind::kInteger, "5", "milliseconds to load a tensor", {{{0, 5}}}},
    {"fake_device_settings.get_result_latency", ConfigKind::kInteger, "10", "milliseconds to fetch a result", {{{0, 10}}}},
    {"fake_device_settings.queue_capacity", ConfigKind::kInteger, "10", "inferences that a device holds", {{{1, 10}}}},
    // Whole seconds, so that a time-out below 1000 ms fails at once.
    {"fake_device_settings.wait_timeout", ConfigKind::kInteger, "5000", "milliseconds that a device waits on its queue, in whole seconds", {{{1, 10000}, {1000, 0}}}},
    {"fake_device_settings.latency_distribution_stddev", ConfigKind::kNumber, "1.0", "standard deviation of the latencies", kNotBelowZero},

    {"debug_settings.debug_service", ConfigKind::kBoolean, "true", "false silences the log altogether"},
    {"debug_settings.enable_tracer", ConfigKind::kBoolean, "false", "writes how long tasks and loads take, see [tracing](tracing.md)"},
    {"debug_settings.placement_log", ConfigKind::kBoolean, "false", "writes a line for each move of a graph and each change of devices and clients, see [events](events.md)"},
    {"debug_settings.dump_graph", ConfigKind::kSwitch, "off", "writes each graph to a file"},
    {"debug_settings.dump_graph_path", ConfigKind::kDirectory, "", "the directory for these files"},
    {"debug_settings.graph_identity", ConfigKind::kText, "hash", "what makes two graphs the same", {}, {"hash|name", "hash"}},
    {"debug_settings.tensor_container", ConfigKind::kText, "default", "`system` keeps tensors in system memory instead of shared buffers", {}, {"default|system", "default"}},

    {"debug_settings.info_printer.enable", ConfigKind::kBoolean, "true", "has no effect: the printer runs whenever something is to be printed"},
    // Whole seconds, so that less than one means no waiting.
    {"debug_settings.info_printer.print_interval", ConfigKind::kInteger, "5000", "milliseconds between printouts, in whole seconds", {{{1, 5000}, {1000, 0}}}},
    {"debug_settings.info_printer.fps_buffer", ConfigKind::kInteger, "10000", "milliseconds of history behind each fps figure"},
    {"debug_settings.info_printer.client_fps", ConfigKind::kSwitch, "off", "prints each client's fps"},
    {"debug_settings.info_printer.device_fps", ConfigKind::kSwitch, "off", "prints each device's fps"},
    {"debug_settings.info_printer.service_fps", ConfigKind::kSwitch, "off", "prints the service's fps"},
    {"debug_settings.info_printer.graph_fps", ConfigKind::kSwitch, "off", "prints each graph's fps"},
    {"debug_settings.info_printer.device_utilization", ConfigKind::kSwitch, "off", "prints each device's utilization"},
    {"debug_settings.info_printer.memory_usage", ConfigKind::kSwitch, "off", "prints the memory in use"},
    {"debug_settings.info_printer.client_snapshot_mode", ConfigKind::kText, "none", "`base` prints a snapshot of the clients", {}, {"none|base", "none"}},
    {"debug_settings.info_printer.client_snapshot_style", ConfigKind::kText, "table", "has no effect"},
    {"debug_settings.info_printer.device_snapshot_mode", ConfigKind::kText, "none", "`base` prints a snapshot of the devices, `full` adds times, counts and the graphs that they hold", {}, {"none|base|full", "none", true}},
    {"debug_settings.info_printer.device_snapshot_style", ConfigKind::kText, "table", "layout of that snapshot", {}, {"table|list", "list"}},
    {"debug_settings.info_printer.graph_snapshot_mode", ConfigKind::kText, "none", "`base` prints a snapshot of the graphs", {}, {"none|base", "none"}},
    {"debug_settings.info_printer.graph_snapshot_style", ConfigKind::kText, "table", "has no effect"},
    {"debug_settings.info_printer.task_snapshot_mode", ConfigKind::kText, "none", "`base` prints a snapshot of the tasks", {}, {"none|base", "none"}},
    {"debug_settings.info_printer.task_snapshot_style", ConfigKind::kText, "list", "has no effect"},

    {"debug_settings.debug_process.message_dispatcher", ConfigKind::kSwitch, "off", "traces of the message dispatcher"},
    {"debug_settings.debug_process.client_manager", ConfigKind::kSwitch, "off", "traces of the client manager"},
    {"debug_settings.debug_process.task_manager", ConfigKind::kSwitch, "off", "traces of the task manager"},
    {"debug_settings.debug_process.task_scheduler", ConfigKind::kSwitch, "off", "traces of the task scheduler"},
    {"debug_settings.debug_process.device_manager", ConfigKind::kSwitch, "off", "traces of the device manager"},
    {"debug_settings.debug_process.device_scheduler", ConfigKind::kSwitch, "off", "traces of the device scheduler"},
    {"debug_settings.debug_process.device", ConfigKind::kSwitch, "off", "traces of devices"},
    {"debug_settings.debug_process.device_work_thread", ConfigKind::kSwitch, "off", "traces of the devices' workers"},
    {"debug_settings.debug_process.graph_manager", ConfigKind::kSwitch, "off", "traces of the graph manager"},
    {"debug_settings.debug_process.result_dispatcher", ConfigKind::kSwitch, "off", "traces of the result dispatcher"},
    {"debug_settings.debug_process.change_operation", ConfigKind::kSwitch, "off", "traces of changes of the graphs that devices hold"},
    {"debug_settings.debug_process.graph_mapper", ConfigKind::kSwitch, "off", "traces of the graph mapper"},
    {"debug_settings.debug_process.info_printer", ConfigKind::kSwitch, "off", "traces of the printer of figures"},

    {"security_settings.user_group", ConfigKind::kGroup, "users", "group that owns the service's lock files and socket; empty changes no group"},

    {"device_settings.device_vid", ConfigKind::kHexadecimal, "0x7c52", "USB vendor id of the accelerators"},
    {"device_settings.device_pid", ConfigKind::kHexadecimal, "0xe19a", "USB product id of the accelerators"},
    {"device_settings.shared_scheduler", ConfigKind::kText, "squeeze2", "who places the graphs that have neither tag nor stream: `squeeze2` divides the devices anew every five seconds ([mapper](mapper.md)), `adaptive` moves a graph as soon as that gains more than it costs ([placement](placement.md))", {}, {"squeeze2|adaptive", "squeeze2", true}},

    // A device has a slave worker or two.
    {"scheduler_config.max_graph_per_device", ConfigKind::kInteger, "2", "graphs that may run on one device", {{{1, 1}}, 2}},
    {"scheduler_config.max_task_number_switch_out", ConfigKind::kInteger, "20", "waiting tasks that make a graph take another one's place"},
    {"scheduler_config.max_cycle_switch_out", ConfigKind::kInteger, "3", "scheduling cycles that a graph may wait before that"},
    {"scheduler_config.stream_device_number", ConfigKind::kInteger, "0", "devices set aside for graphs with a stream id", kNotBelowZero},
    {"scheduler_config.device_schedule_interval", ConfigKind::kInteger, "5000", "has no effect"},
    {"scheduler_config.graph_tag_map", ConfigKind::kTags, "{}", "devices set aside for each tag, as `\"tag\": number`; a value that is no number keeps the service from starting"},
};
// clang-format on

// A row of the table, found while compiling: a path that is not there, or of another kind, does not
// compile.
template <ConfigKind kind>
class ConfigKeyOf {
 public:
    consteval ConfigKeyOf(const char* path) : m_row(find(path)) {}  // implicit: a path is a key

    const ConfigKey* operator->() const { return m_row; }

 private:
    static consteval const ConfigKey* find(std::string_view path) {
        for (const ConfigKey& row : kConfigKeys) {
            if (row.path == path && row.kind == kind) return &row;
        }
        throw std::invalid_argument("no such key of this kind");
    }

    const ConfigKey* m_row;
};

// The number that the service uses where `value` is configured.
inline int bounded(ConfigKeyOf<ConfigKind::kInteger> key, int value) {
    return key->bounds.apply(value);
}

}  // namespace kelm
