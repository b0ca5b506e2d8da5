#pragma once

#include <memory>
#include <string>

namespace kelm {

class TaskSchedulerBase;

// Makes task schedulers by their names in the configuration.
//
// Threads: any.
class TaskSchedulerFactory {
 public:
    // "fcfs", "polling" or "balanced" in any case of letters; null and other names give the
    // default.
    static std::unique_ptr<TaskSchedulerBase> createScheduler(const char* name);
    static std::unique_ptr<TaskSchedulerBase> createScheduler(const std::string& name);

 private:
    static std::unique_ptr<TaskSchedulerBase> createDefaultScheduler();
};

}  // namespace kelm
