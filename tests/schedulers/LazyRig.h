#pragma once

#include <map>
#include <sstream>
#include <string>

#include "fakes/Eventually.h"
#include "fakes/TestRequest.h"
#include "schedulers/SchedulerRig.h"
#include "utils/StringHelper.h"

namespace kelm {

// Plays a script of events to a scheduler that acts on requests only, a pass at a time on the
// test's thread, and tells what came of it.
//
//   +a   device a comes               L1   load graph 1
//   -a   device a goes                U1   unload graph 1
//   !a   device a refuses graphs      |    a pass; there is one at the end, too
//   ?a   device a is dead
//   ~a   device a takes graphs again
//   *a   device a fails with a task of its graph in flight and stays on the bus
//   %a   a client resets device a, which stays on the bus
//
// The outcome has for each pass the graphs with their number of devices and the notices:
// "1x2 ok1 | 1x2 fail2=-122 | gone1". A graph that is loaded after its end shows up, too.
template <class Scheduler>
class LazyRig : public SchedulerRig {
 protected:
    static constexpr int kNoMemory = -130;

    class Stepped : public Scheduler {
     public:
        Stepped() : Scheduler("DS.Test") {}
        void pass() {
            this->m_onSchedulingThread.assertHeld();
            this->makePass();
        }
    };

    // Tells a new graph, by its number, what it asks for.
    virtual void dress(KelmGraph&, char) {}

    std::string play(const std::string& script) {
        std::istringstream events(script);
        std::string outcome;
        for (std::string event; events >> event;) {
            if (event == "|") {
                outcome += pass() + "| ";
            } else {
                act(event[0], event[1]);
            }
        }
        outcome += pass();
        if (!outcome.empty()) outcome.pop_back();
        return outcome;
    }

    void act(char verb, char name) {
        const std::string device(1, name);
        if (verb == '+') m_scheduler.addWorker(m_workers[name] = makeWorker(device, 1));
        if (verb == '-') {
            m_scheduler.removeWorker(m_workers[name]);
            m_workers.erase(name);
        }
        if (verb == '!') m_devices[device].failAll(DeviceCall::Allocate, kNoMemory);
        if (verb == '?' || verb == '~') {
            const int answer = verb == '?' ? KELM_ERROR_DEVICE_FAILED : KELM_OK;
            m_devices[device].failAll(DeviceCall::Allocate, answer);
            m_devices[device].failAll(DeviceCall::Deallocate, answer);
        }
        if (verb == '*') failWithTask(device, m_workers[name]);
        if (verb == '%') {
            m_devices[device].loseOnReset();
            m_workers[name]->enqueueResetDevice(makeResetRequest(0, -1));
            EXPECT_TRUE(eventually([&] { return m_workers[name]->isFailed(); }));
        }
        if (verb == 'L') {
            m_live[name] = makeGraph();
            dress(*m_live[name], name);
            m_scheduler.loadGraph(m_live[name]);
        }
        if (verb == 'U') m_scheduler.unloadGraph(m_live[name]);
    }

    std::string pass() {
        m_scheduler.pass();
        std::string outcome;
        for (const auto& [name, graph] : m_live) {
            const size_t devices = countDevices(graph);
            if (devices > 0) outcome += StringHelper::format("%cx%lu ", name, devices);
        }
        const auto loads = m_placement.loads();
        for (; m_loadsSeen < loads.size(); ++m_loadsSeen) {
            const auto [graph, error] = loads[m_loadsSeen];
            const char name = nameOf(graph);
            outcome += error == KELM_OK ? StringHelper::format("ok%c ", name)
                                        : StringHelper::format("fail%c=%d ", name, error);
            if (error != KELM_OK) bury(name);
        }
        const auto unloads = m_placement.unloads();
        for (; m_unloadsSeen < unloads.size(); ++m_unloadsSeen) {
            const char name = nameOf(unloads[m_unloadsSeen]);
            outcome += StringHelper::format("gone%c ", name);
            bury(name);
        }
        return outcome;
    }

    size_t countDevices(KelmGraph* graph) {
        return static_cast<size_t>(std::ranges::count_if(
            m_workers, [&](auto& entry) { return entry.second->getGraphs().contains(graph); }));
    }

    // Nothing happens on a device without a graph.
    void failWithTask(const std::string& device, WorkThread* worker) {
        constexpr int kHardwareError = -6;
        m_devices[device].setHardwareError(kHardwareError);
        m_devices[device].failAll(DeviceCall::GetResult, kHardwareError);
        for (KelmGraph* graph : worker->getGraphs()) {
            const auto task = makeTestTask(1, graph);
            worker->enqueueLoadTensor(task.get());
            EXPECT_TRUE(eventually([&] { return !m_exchange.returned().empty(); }));
            EXPECT_TRUE(eventually([&] { return worker->isFailed(); }));
        }
    }

    std::map<char, WorkThread*> m_workers;
    std::map<char, KelmGraph*> m_live;
    Stepped m_scheduler;
    bool m_deletesRecords = false;  // for sanitizers: whoever keeps a pointer too long is found

 private:
    char nameOf(KelmGraph* graph) {
        for (const auto& [name, live] : m_live) {
            if (live == graph) return name;
        }
        return '?';
    }
    // From here on the graph manager may delete the record.
    void bury(char name) {
        EXPECT_EQ(countDevices(m_live[name]), 0u);
        if (!m_deletesRecords) return;
        deleteGraph(m_live[name]);
        m_live.erase(name);
    }

    size_t m_loadsSeen = 0;
    size_t m_unloadsSeen = 0;
};

// One script, named after the fault that it would catch.
struct LazyCase {
    const char* fault;
    const char* script;
    const char* outcome;
};

inline std::string faultOf(const ::testing::TestParamInfo<LazyCase>& info) {
    return info.param.fault;
}

}  // namespace kelm
