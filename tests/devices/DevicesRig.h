#pragma once

#include <memory>
#include <string>
#include <vector>

#include "config/ServiceConfigParser.h"
#include "execution/ResultSink.h"
#include "execution/TaskExchange.h"
#include "fakes/FakeGraphPlacementListener.h"
#include "fakes/FakeResultSink.h"
#include "fakes/FakeTaskExchange.h"
#include "fakes/ScriptedDevice.h"
#include "fakes/TempDir.h"
#include "fakes/TestRecords.h"
#include "scheduling/devices/GraphPlacementListener.h"
#include "utils/Port.h"

namespace kelm {

// Scripted devices, listeners that record, and a configuration of the test's own.
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
    // Goes on top of what earlier cases of this process have set.
    void configure(const std::string& json) {
        const std::string path = m_dir.write("test.config", json);
        ASSERT_TRUE(ServiceConfigParser::instance().appendConfigFile(path, true));
    }
    KelmGraph* makeGraph() {
        const uint64_t id = m_graphs.size() + 1;
        m_graphs.push_back(makeTestGraph(id, "content" + std::to_string(id)));
        return m_graphs.back().get();
    }

    TempDir m_dir;
    std::vector<std::unique_ptr<KelmGraph>> m_graphs;
    ScriptedDevices m_devices;
    FakeTaskExchange m_exchange;
    ScopedPort<TaskExchange> m_exchangePort{m_exchange};
    FakeGraphPlacementListener m_placement;
    ScopedPort<GraphPlacementListener> m_placementPort{m_placement};
    FakeResultSink m_results;
    ScopedPort<ResultSink> m_resultsPort{m_results};
};

}  // namespace kelm
