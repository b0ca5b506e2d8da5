#include "scheduling/devices/DeviceSchedulerFactory.h"

#include "scheduling/devices/DeviceSchedulerAdaptive.h"
#include "scheduling/devices/DeviceSchedulerSqueeze2.h"
#include "scheduling/devices/DeviceSchedulerStream.h"
#include "scheduling/devices/DeviceSchedulerTag.h"
#include "utils/Log.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

using SchedulerPtr = std::unique_ptr<DeviceSchedulerBase>;

template <class Scheduler>
SchedulerPtr make(const char* name) {
    return std::make_unique<Scheduler>(name);
}

// The names are also those of the scheduling threads.
struct SchedulerRow {
    const char* keyword;
    const char* schedulerName;
    const char* message;
    SchedulerPtr (*create)(const char* name);
};

// Also the name of the default's thread: both ways to it must give the same.
constexpr const char* kSqueezeName = "DS.Squeeze2";

constexpr SchedulerRow kSchedulerRows[] = {
    {"tag", "DS.Tag", "Info: ## DeviceSchedulerFacotry ## Created Tag Device-Scheduler.",
     &make<DeviceSchedulerTag>},
    {"stream", "DS.Stream", "Info: ## DeviceSchedulerFacotry ## Created Stream Device-Scheduler.",
     &make<DeviceSchedulerStream>},
    {"squeeze2", kSqueezeName,
     "Info: ## DeviceSchedulerFacotry ## Created Squeeze Device-Scheduler2.",
     &make<DeviceSchedulerSqueeze2>},
    {"adaptive", "DS.Adaptive",
     "Info: ## DeviceSchedulerFacotry ## Created Adaptive Device-Scheduler.",
     &make<DeviceSchedulerAdaptive>},
};

}  // namespace

SchedulerPtr DeviceSchedulerFactory::createScheduler(const std::string& name) {
    const std::string keyword = toLower(name);
    LOG_DEBUG("Pass in device scheduler name = %s, iname = %s.", name, keyword);
    for (const SchedulerRow& row : kSchedulerRows) {
        if (keyword != row.keyword) continue;
        LOG_INFO("%s", row.message);
        return row.create(row.schedulerName);
    }
    return createDefaultScheduler();
}

SchedulerPtr DeviceSchedulerFactory::createScheduler(const char* name) {
    return name != nullptr ? createScheduler(std::string(name)) : createDefaultScheduler();
}

SchedulerPtr DeviceSchedulerFactory::createDefaultScheduler() {
    LOG_INFO("Info: ## DeviceSchedulerFacotry ## Create default scheduler -- SqueezeScheduler");
    return make<DeviceSchedulerSqueeze2>(kSqueezeName);
}

}  // namespace kelm
