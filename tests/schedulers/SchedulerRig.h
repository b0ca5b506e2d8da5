#pragma once

#include <memory>
#include <string>
#include <vector>

#include "execution/TaskExchange.h"
#include "execution/WorkThread.h"
#include "fakes/FakeGraphPlacementListener.h"
#include "fakes/FakeTaskExchange.h"
#include "fakes/FakeWorkerRemovalListener.h"
#include "fakes/ScriptedDevice.h"
#include "fakes/TestRecords.h"
#include "scheduling/devices/DeviceSchedulerSqueeze2.h"
#include "scheduling/devices/GraphPlacementListener.h"
#include "utils/Port.h"

namespace kelm {

// Real workers on scripted devices, and listeners that record.
class SchedulerRig : public ::testing::Test {
 protected:
    WorkThread* makeWorker(const std::string& device, int slots = 2) {
        return m_removal.own(std::make_unique<WorkThread>(device, 0, slots, 4));
    }
    KelmGraph* makeGraph() {
        const uint64_t id = m_graphs.size() + 1;
        m_graphs.push_back(makeTestGraph(id, "content" + std::to_string(id)));
        return m_graphs.back().get();
    }
    // As the graph manager does when it may.
    void deleteGraph(KelmGraph* graph) {
        for (auto& owned : m_graphs) {
            if (owned.get() == graph) owned.reset();
        }
    }

    std::vector<std::unique_ptr<KelmGraph>> m_graphs;
    ScriptedDevices m_devices;
    FakeTaskExchange m_exchange;
    ScopedPort<TaskExchange> m_exchangePort{m_exchange};
    FakeGraphPlacementListener m_placement;
    ScopedPort<GraphPlacementListener> m_placementPort{m_placement};
    FakeWorkerRemovalListener m_removal;
    ScopedPort<WorkerRemovalListener> m_removalPort{m_removal};
};

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

// The same, and it shows that it has failed, as an accelerator does.
class LostDevice : public DyingDevice {
 public:
    using DyingDevice::DyingDevice;
    std::unique_ptr<KelmDeviceBase> clone() override { return std::make_unique<LostDevice>(this); }

 protected:
    int allocateGraphImpl(KelmGraph* graph) override {
        static_cast<LostDevice*>(m_parent)->m_deviceFailed = true;
        return DyingDevice::allocateGraphImpl(graph);
    }
};

// Makes its passes on the test's thread, one at a time.
class SteppedSqueeze : public DeviceSchedulerSqueeze2 {
 public:
    explicit SteppedSqueeze(int maxGraphNumPerDevice = 2) : DeviceSchedulerSqueeze2("DS.Test") {
        setMaxGraphNumPerDevice(maxGraphNumPerDevice);
        setMaxPendingTaskNum(20);
        setMaxPendingCycle(3);
    }

    void pass() {
        m_onSchedulingThread.assertHeld();
        ASSERT_TRUE(plan());
        commitChangeOperation();
    }
    // A pass whose plan is dropped.
    void droppedPass() {
        m_onSchedulingThread.assertHeld();
        ASSERT_TRUE(plan());
        restoreScene();
    }
    MapResult adjusted(MapResult result) {
        m_onSchedulingThread.assertHeld();
        adjustMapResult(result);
        return result;
    }

 private:
    bool plan() REQUIRES(m_onSchedulingThread) {
        updateChangeRequest();
        storeChangeRequests();
        return mapResource();
    }
};

}  // namespace kelm
