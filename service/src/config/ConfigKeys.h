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
    ConfigBounds bounds = {};
    ConfigChoices choices = {};
};

constexpr const char* kSchedulerSection = "scheduler_config";
constexpr const char* kSubclassMember = "subclass";  // names an element of that section

// A limit below 0 is none, as 0 is.
constexpr ConfigBounds kNotBelowZero{{{0, 0}}};

// Every key of the service: the getters take their defaults from here, the components their bounds,
// kelmctl all of it. Grouped and ordered as in docs/configuration.md.
// clang-format off
constexpr ConfigKey kConfigKeys[] = {
    {"log_level.log_process", ConfigKind::kSwitch, "off"},
    {"log_level.log_debug", ConfigKind::kSwitch, "off"},
    {"log_level.log_info", ConfigKind::kSwitch, "on"},
    {"log_level.log_warn", ConfigKind::kSwitch, "on"},
    {"log_level.log_frequent", ConfigKind::kSwitch, "off"},
    {"log_level.log_error", ConfigKind::kSwitch, "on"},
    {"log_level.log_fatal", ConfigKind::kSwitch, "on"},

    {"service_settings.wait_seconds_before_exit", ConfigKind::kInteger, "-1"},
    {"service_settings.max_cached_graph_number", ConfigKind::kInteger, "4", {{{1, 1}}}},
    {"service_settings.max_inference_number", ConfigKind::kInteger, "4", {{{1, 1}}}},
    {"service_settings.max_graph_number", ConfigKind::kInteger, "0", kNotBelowZero},
    {"service_settings.server_max_task_number", ConfigKind::kInteger, "300", kNotBelowZero},
    {"service_settings.client_max_task_number", ConfigKind::kInteger, "0", kNotBelowZero},
    {"service_settings.tevo_log_level", ConfigKind::kInteger, "4"},
    {"service_settings.update_thermal_interval", ConfigKind::kInteger, "2000", kNotBelowZero},
    {"service_settings.update_timetaken_interval", ConfigKind::kInteger, "1000", kNotBelowZero},
    {"service_settings.common_timeout", ConfigKind::kInteger, "1"},
    {"service_settings.alloc_graph_timeout", ConfigKind::kInteger, "12"},
    {"service_settings.task_scheduler", ConfigKind::kText, "polling", {}, {"polling|fcfs", "polling", true}},

    {"fake_device_settings.enable_fake_device", ConfigKind::kBoolean, "false"},
    {"fake_device_settings.fake_device_number", ConfigKind::kInteger, "3", kNotBelowZero},
    {"fake_device_settings.alloc_graph_latency", ConfigKind::kInteger, "5", {{{0, 5}}}},
    {"fake_device_settings.load_tensor_latency", ConfigKind::kInteger, "5", {{{0, 5}}}},
    {"fake_device_settings.get_result_latency", ConfigKind::kInteger, "10", {{{0, 10}}}},
    {"fake_device_settings.queue_capacity", ConfigKind::kInteger, "10", {{{1, 10}}}},
    // Whole seconds, so that a time-out below 1000 ms fails at once.
    {"fake_device_settings.wait_timeout", ConfigKind::kInteger, "5000", {{{1, 10000}, {1000, 0}}}},
    {"fake_device_settings.latency_distribution_stddev", ConfigKind::kNumber, "1.0", kNotBelowZero},

    {"debug_settings.debug_service", ConfigKind::kBoolean, "true"},
    {"debug_settings.enable_tracer", ConfigKind::kBoolean, "false"},
    {"debug_settings.dump_graph", ConfigKind::kSwitch, "off"},
    {"debug_settings.dump_graph_path", ConfigKind::kDirectory, ""},
    {"debug_settings.graph_identity", ConfigKind::kText, "hash", {}, {"hash|name", "hash"}},
    {"debug_settings.tensor_container", ConfigKind::kText, "default", {}, {"default|system", "default"}},

    {"debug_settings.info_printer.enable", ConfigKind::kBoolean, "true"},
    // Whole seconds, so that less than one means no waiting.
    {"debug_settings.info_printer.print_interval", ConfigKind::kInteger, "5000", {{{1, 5000}, {1000, 0}}}},
    {"debug_settings.info_printer.fps_buffer", ConfigKind::kInteger, "10000"},
    {"debug_settings.info_printer.client_fps", ConfigKind::kSwitch, "off"},
    {"debug_settings.info_printer.device_fps", ConfigKind::kSwitch, "off"},
    {"debug_settings.info_printer.service_fps", ConfigKind::kSwitch, "off"},
    {"debug_settings.info_printer.graph_fps", ConfigKind::kSwitch, "off"},
    {"debug_settings.info_printer.device_utilization", ConfigKind::kSwitch, "off"},
    {"debug_settings.info_printer.memory_usage", ConfigKind::kSwitch, "off"},
    {"debug_settings.info_printer.client_snapshot_mode", ConfigKind::kText, "none", {}, {"none|base", "none"}},
    {"debug_settings.info_printer.client_snapshot_style", ConfigKind::kText, "table"},
    {"debug_settings.info_printer.device_snapshot_mode", ConfigKind::kText, "none", {}, {"none|base|full", "none", true}},
    {"debug_settings.info_printer.device_snapshot_style", ConfigKind::kText, "table", {}, {"table|list", "list"}},
    {"debug_settings.info_printer.graph_snapshot_mode", ConfigKind::kText, "none", {}, {"none|base", "none"}},
    {"debug_settings.info_printer.graph_snapshot_style", ConfigKind::kText, "table"},
    {"debug_settings.info_printer.task_snapshot_mode", ConfigKind::kText, "none", {}, {"none|base", "none"}},
    {"debug_settings.info_printer.task_snapshot_style", ConfigKind::kText, "list"},

    {"debug_settings.debug_process.message_dispatcher", ConfigKind::kSwitch, "off"},
    {"debug_settings.debug_process.client_manager", ConfigKind::kSwitch, "off"},
    {"debug_settings.debug_process.task_manager", ConfigKind::kSwitch, "off"},
    {"debug_settings.debug_process.task_scheduler", ConfigKind::kSwitch, "off"},
    {"debug_settings.debug_process.device_manager", ConfigKind::kSwitch, "off"},
    {"debug_settings.debug_process.device_scheduler", ConfigKind::kSwitch, "off"},
    {"debug_settings.debug_process.device", ConfigKind::kSwitch, "off"},
    {"debug_settings.debug_process.device_work_thread", ConfigKind::kSwitch, "off"},
    {"debug_settings.debug_process.graph_manager", ConfigKind::kSwitch, "off"},
    {"debug_settings.debug_process.result_dispatcher", ConfigKind::kSwitch, "off"},
    {"debug_settings.debug_process.change_operation", ConfigKind::kSwitch, "off"},
    {"debug_settings.debug_process.graph_mapper", ConfigKind::kSwitch, "off"},
    {"debug_settings.debug_process.info_printer", ConfigKind::kSwitch, "off"},

    {"security_settings.user_group", ConfigKind::kGroup, "users"},

    {"device_settings.device_vid", ConfigKind::kHexadecimal, "0x7c52"},
    {"device_settings.device_pid", ConfigKind::kHexadecimal, "0xe19a"},
    {"device_settings.shared_scheduler", ConfigKind::kText, "squeeze2", {}, {"squeeze2|adaptive", "squeeze2", true}},

    // A device has a slave worker or two.
    {"scheduler_config.max_graph_per_device", ConfigKind::kInteger, "2", {{{1, 1}}, 2}},
    {"scheduler_config.max_task_number_switch_out", ConfigKind::kInteger, "20"},
    {"scheduler_config.max_cycle_switch_out", ConfigKind::kInteger, "3"},
    {"scheduler_config.stream_device_number", ConfigKind::kInteger, "0", kNotBelowZero},
    {"scheduler_config.device_schedule_interval", ConfigKind::kInteger, "5000"},
    {"scheduler_config.graph_tag_map", ConfigKind::kTags, "{}"},
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
