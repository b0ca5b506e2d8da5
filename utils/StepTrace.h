#pragma once

#include <string>
#include <utility>

#include "utils/Log.h"

namespace kelm {

// Whether a component writes its steps to the log, and under which name. A key of the configuration
// switches them on for each component; it is read once, where the component is built.
//
// Threads: any; fixed after construction.
class StepTrace {
 public:
    // `object` is the name of the device or the like that the lines are about; empty for none.
    StepTrace(bool isOn, std::string object = {})  // implicit: mostly the key's value alone
        : m_isOn(isOn), m_object(std::move(object)) {}

    bool isOn() const { return m_isOn; }
    const char* getObject() const { return m_object.empty() ? nullptr : m_object.c_str(); }

 private:
    bool m_isOn;
    std::string m_object;
};

}  // namespace kelm

// A line of the class around it, which has its trace as m_trace: a step, or a line that comes with
// every task. The arguments are not evaluated unless the line is written.
#define LOG_STEP(...) \
    KELM_LOG(m_trace.isOn(), ::kelm::LOG_LEVEL_PROC, "PROC", m_trace.getObject(), __VA_ARGS__)
#define LOG_TASK(...) \
    KELM_LOG(m_trace.isOn(), ::kelm::LOG_LEVEL_FREQ, "FREQ", m_trace.getObject(), __VA_ARGS__)
