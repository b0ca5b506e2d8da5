#include "scheduling/tasks/TaskSchedulerFactory.h"

#include "scheduling/tasks/TaskSchedulerBalanced.h"
#include "scheduling/tasks/TaskSchedulerFCFS.h"
#include "scheduling/tasks/TaskSchedulerPolling.h"
#include "utils/Log.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

std::unique_ptr<TaskSchedulerBase> createPolling() {
    return std::make_unique<TaskSchedulerPolling>("TS.Polling");
}

std::unique_ptr<TaskSchedulerBase> createFcfs() {
    return std::make_unique<TaskSchedulerFCFS>("TS.FCFS");
}

std::unique_ptr<TaskSchedulerBase> createBalanced() {
    return std::make_unique<TaskSchedulerBalanced>("TS.Balanced");
}

struct SchedulerRow {
    const char* keyword;
    const char* message;
    std::unique_ptr<TaskSchedulerBase> (*create)();
};

constexpr SchedulerRow kSchedulerRows[] = {
    {"fcfs", "Info: ## TaskSchedulerFactory ## Created FCFS Task-Scheduler.", createFcfs},
    {"polling", "Info: ## TaskSchedulerFactory ## Created Polling Task-Scheduler.", createPolling},
    {"balanced", "Info: ## TaskSchedulerFactory ## Created Balanced Task-Scheduler.",
     createBalanced},
};

}  // namespace

std::unique_ptr<TaskSchedulerBase> TaskSchedulerFactory::createScheduler(const char* name) {
    return name != nullptr ? createScheduler(std::string(name)) : createDefaultScheduler();
}

std::unique_ptr<TaskSchedulerBase> TaskSchedulerFactory::createScheduler(const std::string& name) {
    const std::string keyword = toLower(name);
    LOG_INFO("Pass in task scheduler name = %s, iname = %s.", name, keyword);
    for (const SchedulerRow& row : kSchedulerRows) {
        if (keyword != row.keyword) continue;
        auto scheduler = row.create();
        LOG_INFO("%s", row.message);
        return scheduler;
    }
    return createDefaultScheduler();
}

std::unique_ptr<TaskSchedulerBase> TaskSchedulerFactory::createDefaultScheduler() {
    LOG_INFO(
        "Info: ## TaskSchedulerFactory ## Create default task scheduler -- TaskSchedulerPolling");
    return createPolling();
}

}  // namespace kelm
