#pragma once

#include <type_traits>

#include "fakes/FakeGraphPlacementListener.h"
#include "fakes/FakeTaskExchange.h"
#include "fakes/ScriptedDevice.h"
#include "fakes/TestRecords.h"
#include "fakes/TestRequest.h"
#include "scheduling/devices/DeviceSchedulerLazy.h"
#include "scheduling/devices/WorkerRemovalListener.h"
#include "utils/Port.h"
#include "utils/StringHelper.h"

namespace kelm {

// Takes a graph and dies: the graph no longer counts it.
class DyingDevice : public ScriptedDevice {
 public:
    using ScriptedDevice::ScriptedDevice;
    std::unique_ptr<KelmDeviceBase> clone() override { return std::make_unique<DyingDevice>(this); }

 protected:
    int allocateGraphImpl(KelmGraph* graph) override {
        const int rc = ScriptedDevice::allocateGraphImpl(graph);
        graph->removeCachedDevice(getName());
        return rc;
    }
};

// Owns workers and destroys one as soon as its scheduler releases it. Any thread.
class FakeWorkerRemovalListener final : public WorkerRemovalListener {
 public:
    WorkThread* own(std::unique_ptr<WorkThread> worker) {
        MutexLock lock(m_mutex);
        return m_workers.emplace_back(std::move(worker)).get();
    }
    void enqueueRemoveWorkerDone(WorkThread* worker) override {
        MutexLock lock(m_mutex);
        std::erase_if(m_workers, [worker](const auto& owned) { return owned.get() == worker; });
        removed.add(worker);
    }

    Recorded<WorkThread*> removed;  // these are destroyed

 private:
    Mutex m_mutex;
    std::vector<std::unique_ptr<WorkThread>> m_workers GUARDED_BY(m_mutex);
};

// Real workers on scripted devices, and listeners that record.
struct SchedulerFakes {
    SchedulerFakes() {
        KelmDeviceBase::setFactory([&](const std::string& name) -> std::unique_ptr<KelmDeviceBase> {
            const std::shared_ptr<DeviceScript> script(std::shared_ptr<void>(), &devices[name]);
            if (name == "x") return std::make_unique<DyingDevice>(name, script);
            return std::make_unique<ScriptedDevice>(name, script);
        });
    }
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
};

// Plays a script of events to a scheduler, and tells what came of it.
//
//   +a   device a comes               L1   load graph 1, a new one
//   -a   device a is taken away       l1   load graph 1 once more
//   !a   device a refuses graphs      U1   unload graph 1
//   ^a   device a fails each call     |    a pass; there is one at the end, too
//   oa   so does a, as closed         /    a pass whose plan is dropped
//   ~a   device a takes graphs again
//   *a   device a fails and stays on the bus
//   +x   a device comes that takes graphs and dies
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

    std::function<void(KelmGraph&, char)> dress = [](KelmGraph&, char) {
    };              // by a new graph's number
    int slots = 1;  // of the workers that come
    bool tellsCalls = false;
    Stepped<Scheduler> scheduler;

 private:
    void act(char verb, char name) {
        const std::string device(1, name);
        if (verb == '+') {
            scheduler.addWorker(m_workers[name] = makeWorker(device, slots));
            m_deviceNames[m_workers[name]] = name;
        }
        if (verb == '-') {
            scheduler.removeWorker(m_workers[name]);
            m_workers.erase(name);
        }
        const std::map<char, int> answers = {{'!', -130},
                                             {'^', KELM_ERROR_DEVICE_FAILED},
                                             {'o', KELM_ERROR_DEVICE_NOT_OPEN},
                                             {'~', KELM_OK}};
        if (const auto answer = answers.find(verb); answer != answers.end()) {
            devices[device].failAll(DeviceCall::Allocate, answer->second);
            if (verb != '!') devices[device].failAll(DeviceCall::Deallocate, answer->second);
        }
        if (verb == '*') {
            devices[device].loseOnReset();
            m_workers[name]->enqueueResetDevice(makeResetRequest(0, -1));
            EXPECT_TRUE(eventually([&] { return m_workers[name]->isFailed(); }));
        }
        if (verb == 'L') {
            KelmGraph* const graph = makeGraph();
            std::erase_if(m_known, [graph](auto& entry) { return entry.second == graph; });
            m_known[name] = graph;
            dress(*graph, name);
        }
        if (verb == 'L' || verb == 'l') scheduler.loadGraph(m_known[name]);
        if (verb == 'U') scheduler.unloadGraph(m_known[name]);
    }

    size_t countDevices(KelmGraph* graph) {
        return static_cast<size_t>(std::ranges::count_if(
            m_workers, [&](auto& entry) { return entry.second->getGraphs().contains(graph); }));
    }

    std::string pass(bool dropped) {
        scheduler.pass(dropped);
        std::string outcome;
        for (const auto& [name, graph] : m_known) {
            const size_t number = countDevices(graph);
            if (number > 0) outcome += StringHelper::format("%cx%lu ", name, number);
        }
        // By graph: the scheduler tells them in the order of their addresses.
        std::multimap<char, KelmError> answers;
        for (const auto loads = placement.loads(); m_loadsSeen < loads.size(); ++m_loadsSeen) {
            answers.emplace(nameOf(loads[m_loadsSeen].first), loads[m_loadsSeen].second);
        }
        for (const auto& [name, error] : answers) {
            outcome += error == KELM_OK ? StringHelper::format("ok%c ", name)
                                        : StringHelper::format("fail%c=%d ", name, error);
            if (error != KELM_OK) bury(name);
        }
        std::set<char> unloaded;
        for (const auto unloads = placement.unloads(); m_unloadsSeen < unloads.size();) {
            unloaded.insert(nameOf(unloads[m_unloadsSeen++]));
        }
        for (const char name : unloaded) {
            outcome += StringHelper::format("gone%c ", name);
            bury(name);
        }
        return tellsCalls ? outcome + newCalls() : outcome;
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
        deleteGraph(m_known[name]);
    }
    std::string newCalls() {
        std::string calls;
        for (const char name : std::string("abc")) {
            DeviceScript& script = devices[std::string(1, name)];
            const int number = script.count(DeviceCall::Allocate);
            const int loads = number - std::exchange(m_callsSeen[name].first, number);
            if (loads > 0) calls += StringHelper::format("%c+%d ", name, loads);
            const auto unloads = script.deallocated();
            for (size_t& seen = m_callsSeen[name].second; seen < unloads.size(); ++seen) {
                const auto [graph, keepCached] = unloads[seen];
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

    std::map<char, WorkThread*> m_workers;
    std::map<char, std::pair<int, size_t>> m_callsSeen;  // loads and unloads, by device
    std::map<char, KelmGraph*> m_known;                  // also those whose record has been deleted
    std::map<WorkThread*, char> m_deviceNames;
    size_t m_loadsSeen = 0;
    size_t m_unloadsSeen = 0;
    size_t m_removedSeen = 0;
};

}  // namespace kelm
