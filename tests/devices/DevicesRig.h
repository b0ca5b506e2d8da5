#pragma once

#include "config/ServiceConfigParser.h"
#include "devices/DeviceManager.h"
#include "execution/WorkerFailureListener.h"
#include "fakes/FakeGraphPlacementListener.h"
#include "fakes/FakeInfoCollector.h"
#include "fakes/FakeResultSink.h"
#include "fakes/FakeTaskExchange.h"
#include "fakes/ScriptedDevice.h"
#include "fakes/TestRecords.h"
#include "fakes/TestRequest.h"
#include "reporting/KelmStatus.h"
#include "scheduling/devices/WorkerRemovalListener.h"
#include "utils/Port.h"

namespace kelm {

// Scripted devices, listeners that record, a configuration of the test's own, and a manager of
// subclass 0 that hears of its workers as it does in the service.
class DevicesRig : public ::testing::Test {
 protected:
    void SetUp() override {
        configure(R"({"fake_device_settings": {"enable_fake_device": false},
                      "device_settings": {"device_vid": "0x1", "device_pid": "0x1"},
                      "service_settings": {"update_thermal_interval": 0},
                      "scheduler_config": [{"subclass": 0, "max_graph_per_device": 2,
                                            "stream_device_number": 0, "graph_tag_map": {}},
                                           {"subclass": 2, "graph_tag_map": {}}]})");
    }
    // On top of what earlier cases of this process have set.
    void configure(const std::string& json) {
        const std::string path = m_dir.write("test.config", json);
        ASSERT_TRUE(ServiceConfigParser::instance().appendConfigFile(path, true));
    }
    void configurePrinting(const std::string& mode, const std::string& style) {
        configure(R"({"debug_settings": {"info_printer": {"device_fps": "on",
                      "device_utilization": "on", "device_snapshot_mode": ")" +
                  mode + R"(", "device_snapshot_style": ")" + style + R"("}}})");
    }
    KelmGraph* makeGraph(const std::string& tag = "", const std::string& streamId = "") {
        const uint64_t id = m_graphs.size() + 1;
        m_graphs.push_back(makeTestGraph(id, "content" + std::to_string(id)));
        m_graphs.back()->setTag(tag.c_str());
        m_graphs.back()->setStreamId(streamId.c_str());
        return m_graphs.back().get();
    }
    // For threads that are left behind and may use it after the test.
    static KelmGraph* makeLastingGraph() {
        static auto* const kept = new std::vector<std::unique_ptr<KelmGraph>>;
        kept->push_back(makeTestGraph(kept->size() + 1, "content"));
        return kept->back().get();
    }

    void startManager(const std::vector<std::string>& names, std::chrono::milliseconds stop = 30s,
                      std::chrono::milliseconds oldWorker = 60s) {
        m_manager = DeviceManager::create("DeviceManager0", {stop, oldWorker});
        m_relay.manager = m_manager.get();
        m_manager->setDeviceList(0, names);
    }
    void plugIn(const std::string& name) { EXPECT_TRUE(m_manager->enqueuePluginDevice(0, name)); }
    void plugOut(const std::string& name) { EXPECT_TRUE(m_manager->enqueuePlugoutDevice(0, name)); }
    bool hasWorkers(uint64_t number) {
        return eventually([&] { return m_manager->getWorkerNum() == number; });
    }
    // Calls that were begun since the test began, failed ones too.
    bool hasCalled(const std::string& name, DeviceCall call, int times) {
        return eventually([&] { return m_devices[name].count(call) == times; });
    }
    static bool isOnDevices(KelmGraph* graph, int number) {
        return eventually([&] { return graph->getRunningDeviceNum() == number; });
    }
    std::string print() {
        ::testing::internal::CaptureStdout();
        m_manager->onPrintInfo();
        return ::testing::internal::GetCapturedStdout();
    }
    KelmStatus query() {
        KelmStatus status;
        m_manager->queryDeviceStatus(status);
        return status;
    }

    // Hands a manager its own notices.
    struct Relay final : WorkerRemovalListener, WorkerFailureListener {
        void enqueueRemoveWorkerDone(WorkThread* worker) override {
            manager->enqueueRemoveWorkerDone(worker);
        }
        void enqueueWorkerFailed(WorkThread* worker) override {
            manager->enqueueWorkerFailed(worker);
        }
        DeviceManager* manager = nullptr;
    };

    TempDir m_dir;
    std::vector<std::unique_ptr<KelmGraph>> m_graphs;
    ScriptedDevices m_devices;
    FakeTaskExchange m_exchange;
    ScopedPort<TaskExchange> m_exchangePort{m_exchange};
    FakeGraphPlacementListener m_placement;
    ScopedPort<GraphPlacementListener> m_placementPort{m_placement};
    FakeResultSink m_results;
    ScopedPort<ResultSink> m_resultsPort{m_results};
    FakeInfoCollector m_collector;
    ScopedPort<InfoCollector> m_collectorPort{m_collector};
    std::shared_ptr<DeviceManager> m_manager;
    Relay m_relay;
    ScopedPort<WorkerRemovalListener> m_removalPort{m_relay};
    ScopedPort<WorkerFailureListener> m_failurePort{m_relay};
};

}  // namespace kelm
