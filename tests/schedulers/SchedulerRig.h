#pragma once

#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "execution/TaskExchange.h"
#include "execution/WorkThread.h"
#include "fakes/Eventually.h"
#include "fakes/FakeGraphPlacementListener.h"
#include "fakes/FakeTaskExchange.h"
#include "fakes/FakeWorkerRemovalListener.h"
#include "fakes/ScriptedDevice.h"
#include "fakes/TestRecords.h"
#include "fakes/TestRequest.h"
#include "scheduling/devices/DeviceSchedulerLazy.h"
#include "utils/Port.h"
#include "utils/StringHelper.h"

namespace kelm {

// Takes a graph and dies: the graph no longer counts it. A lost one also shows that it has failed,
// as an accelerator does.
class DyingDevice : public ScriptedDevice {
 public:
    DyingDevice(const std::string& name, bool isLost)
        : ScriptedDevice(name, std::make_shared<DeviceScript>()), m_isLost(isLost) {}
    explicit DyingDevice(DyingDevice* root) : ScriptedDevice(root), m_isLost(root->m_isLost) {}
    std::unique_ptr<KelmDeviceBase> clone() override { return std::make_unique<DyingDevice>(this); }

 protected:
    int allocateGraphImpl(KelmGraph* graph) override {
        if (m_isLost) static_cast<DyingDevice*>(m_parent)->m_deviceFailed = true;
        const int rc = ScriptedDevice::allocateGraphImpl(graph);
        graph->removeCachedDevice(getName());
        return rc;
    }

 private:
    const bool m_isLost;
};

// Real workers on scripted devices, and listeners that record.
struct SchedulerFakes {
    WorkThread* makeWorker(const std::string& device, int slots = 2) {
        return removal.own(std::make_unique<WorkThread>(device, 0, slots, 4));
    }
    KelmGraph* makeGraph() {
        const uint64_t id = graphs.size() + 1;
        graphs.push_back(makeTestGraph(id, "content" + std::to_string(id)));
        return graphs.back().get();
    }
    // As the graph manager does when it may.
    void deleteGraph(KelmGraph* graph) {
        for (auto& owned : graphs) {
            if (owned.get() == graph) owned.reset();
        }
    }
    // Each device made from now on is of this kind; those of the other names are scripted.
    void makeDying(const std::string& names, bool isLost) {
        KelmDeviceBase::setFactory([=](const std::string& name) -> std::unique_ptr<KelmDeviceBase> {
            if (names.find(name) != std::string::npos) {
                return std::make_unique<DyingDevice>(name, isLost);
            }
            return std::make_unique<ScriptedDevice>(name, std::make_shared<DeviceScript>());
        });
    }

    std::vector<std::unique_ptr<KelmGraph>> graphs;
    ScriptedDevices devices;
    FakeTaskExchange exchange;
    ScopedPort<TaskExchange> exchangePort{exchange};
    FakeGraphPlacementListener placement;
    ScopedPort<GraphPlacementListener> placementPort{placement};
    FakeWorkerRemovalListener removal;
    ScopedPort<WorkerRemovalListener> removalPort{removal};
};

// Makes its passes on the test's thread, one at a time.
template <class Scheduler>
class Stepped : public Scheduler {
 public:
    Stepped() : Scheduler("DS.Test") {}
    // A plan that is dropped has no effect but on the scheduler's own picture.
    void pass(bool dropped = false) {
        this->m_onSchedulingThread.assertHeld();
        if constexpr (std::is_base_of_v<DeviceSchedulerLazy, Scheduler>) {
            this->makePass();
        } else {
            this->updateChangeRequest();
            this->storeChangeRequests();
            ASSERT_TRUE(this->mapResource());
            dropped ? this->restoreScene() : this->commitChangeOperation();
        }
    }
    template <class MapResult>
    MapResult adjusted(MapResult result) {
        this->m_onSchedulingThread.assertHeld();
        this->adjustMapResult(result);
        return result;
    }
};

// Plays a script of events to a scheduler, and tells what came of it.
//
//   +a   device a comes               L1   load graph 1, a new one
//   -a   device a is taken away       l1   load graph 1 once more
//   !a   device a refuses graphs      U1   unload graph 1
//   ^a   device a refuses as lost     |    a pass; there is one at the end, too
//   oa   device a refuses as closed   /    a pass whose plan is dropped
//   ?a   device a is dead
//   ~a   device a takes graphs again
//   *a   device a fails with a task of its graph in flight and stays on the bus
//   %a   a client resets device a, which stays on the bus
//
// The outcome has for each pass the graphs with their number of devices and the notices:
// "1x2 ok1 | 1x2 fail2=-122 | gone1". With `tellsCalls` also what the devices were asked: "a+2" for
// two loads, "a~1" and "a-1" for graph 1 unloaded into the cache and for good, "lefta" for a
// removed worker. A graph that is loaded after its end shows up, too.
template <class Scheduler>
class SchedulerRig : public SchedulerFakes {
 public:
    std::string play(const std::string& script) {
        std::istringstream events(script);
        std::string outcome;
        for (std::string event; events >> event;) {
            if (event == "|" || event == "/") {
                outcome += pass(event == "/") + event + " ";
            } else {
                act(event[0], event[1]);
            }
        }
        outcome += pass(false);
        if (!outcome.empty()) outcome.pop_back();
        return outcome;
    }

    void act(char verb, char name) {
        const std::string device(1, name);
        if (verb == '+') {
            scheduler.addWorker(workers[name] = makeWorker(device, slots));
            m_deviceNames[workers[name]] = name;
        }
        if (verb == '-') {
            scheduler.removeWorker(workers[name]);
            workers.erase(name);
        }
        if (verb == '!') devices[device].failAll(DeviceCall::Allocate, -130);
        if (verb == '^') devices[device].failAll(DeviceCall::Allocate, KELM_ERROR_DEVICE_FAILED);
        if (verb == 'o') devices[device].failAll(DeviceCall::Allocate, KELM_ERROR_DEVICE_NOT_OPEN);
        if (verb == '?' || verb == '~') {
            const int answer = verb == '?' ? KELM_ERROR_DEVICE_FAILED : KELM_OK;
            devices[device].failAll(DeviceCall::Allocate, answer);
            devices[device].failAll(DeviceCall::Deallocate, answer);
        }
        if (verb == '*') failWithTask(device, workers[name]);
        if (verb == '%') {
            devices[device].loseOnReset();
            workers[name]->enqueueResetDevice(makeResetRequest(0, -1));
            EXPECT_TRUE(eventually([&] { return workers[name]->isFailed(); }));
        }
        if (verb == 'L') {
            KelmGraph* const graph = makeGraph();
            std::erase_if(m_known, [graph](auto& entry) { return entry.second == graph; });
            live[name] = m_known[name] = graph;
            dress(*live[name], name);
        }
        if (verb == 'L' || verb == 'l') scheduler.loadGraph(m_known[name]);
        if (verb == 'U') scheduler.unloadGraph(m_known[name]);
    }

    size_t countDevices(KelmGraph* graph) {
        return static_cast<size_t>(std::ranges::count_if(
            workers, [&](auto& entry) { return entry.second->getGraphs().contains(graph); }));
    }

    std::string pass(bool dropped = false) {
        scheduler.pass(dropped);
        std::string outcome;
        for (const auto& [name, graph] : live) {
            const size_t number = countDevices(graph);
            if (number > 0) outcome += StringHelper::format("%cx%lu ", name, number);
        }
        // Graphs are handled in the order of their addresses, which is no rule.
        std::set<std::string> loadNotices;
        const auto loads = placement.loads();
        for (; m_loadsSeen < loads.size(); ++m_loadsSeen) {
            const auto [graph, error] = loads[m_loadsSeen];
            const char name = nameOf(graph);
            loadNotices.insert(error == KELM_OK ? StringHelper::format("ok%c ", name)
                                                : StringHelper::format("fail%c=%d ", name, error));
            if (error != KELM_OK) bury(name);
        }
        std::set<std::string> unloadNotices;
        const auto unloads = placement.unloads();
        for (; m_unloadsSeen < unloads.size(); ++m_unloadsSeen) {
            const char name = nameOf(unloads[m_unloadsSeen]);
            unloadNotices.insert(StringHelper::format("gone%c ", name));
            bury(name);
        }
        for (const auto& notices : {loadNotices, unloadNotices}) {
            for (const std::string& notice : notices) outcome += notice;
        }
        return tellsCalls ? outcome + newCalls() : outcome;
    }

    std::function<void(KelmGraph&, char)> dress = [](KelmGraph&, char) {
    };  // by a new graph's number
    std::map<char, WorkThread*> workers;
    std::map<char, KelmGraph*> live;
    int slots = 1;  // of the workers that come
    bool tellsCalls = false;
    bool deletesRecords = false;  // for sanitizers: a pointer that is kept too long is found
    Stepped<Scheduler> scheduler;

 private:
    // Nothing happens on a device without a graph.
    void failWithTask(const std::string& device, WorkThread* worker) {
        constexpr int kHardwareError = -6;
        devices[device].setHardwareError(kHardwareError);
        devices[device].failAll(DeviceCall::GetResult, kHardwareError);
        for (KelmGraph* graph : worker->getGraphs()) {
            const auto task = makeTestTask(1, graph);
            worker->enqueueLoadTensor(task.get());
            EXPECT_TRUE(eventually([&] { return !exchange.returned().empty(); }));
            EXPECT_TRUE(eventually([&] { return worker->isFailed(); }));
        }
    }
    char nameOf(KelmGraph* graph) {
        for (const auto& [name, known] : m_known) {
            if (known == graph) return name;
        }
        return '?';
    }
    // From here on the graph manager may delete the record.
    void bury(char name) {
        EXPECT_EQ(countDevices(m_known[name]), 0u);
        if (!deletesRecords) return;
        deleteGraph(m_known[name]);
        live.erase(name);
    }
    std::string newCalls() {
        std::string calls;
        for (const char name : std::string("abc")) {
            DeviceScript& script = devices[std::string(1, name)];
            Seen& seen = m_seen[name];
            const int loads = script.count(DeviceCall::Allocate) -
                              std::exchange(seen.loads, script.count(DeviceCall::Allocate));
            if (loads > 0) calls += StringHelper::format("%c+%d ", name, loads);
            const auto unloads = script.deallocated();
            for (; seen.unloads < unloads.size(); ++seen.unloads) {
                const auto [graph, keepCached] = unloads[seen.unloads];
                calls +=
                    StringHelper::format("%c%c%c ", name, keepCached ? '~' : '-', nameOf(graph));
            }
        }
        const auto removed = removal.removed();
        for (; m_removedSeen < removed.size(); ++m_removedSeen) {
            calls += StringHelper::format("left%c ", m_deviceNames[removed[m_removedSeen]]);
        }
        return calls;
    }

    struct Seen {
        int loads = 0;
        size_t unloads = 0;
    };
    std::map<char, Seen> m_seen;
    std::map<char, KelmGraph*> m_known;  // also those whose record has been deleted
    std::map<WorkThread*, char> m_deviceNames;
    size_t m_loadsSeen = 0;
    size_t m_unloadsSeen = 0;
    size_t m_removedSeen = 0;
};

// One script, and what it shows.
struct ScriptCase {
    const char* rule;
    const char* script;
    const char* outcome;
};

}  // namespace kelm
