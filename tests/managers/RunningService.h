#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>

#include "config/ServiceConfigParser.h"
#include "fakes/Eventually.h"
#include "fakes/RawClient.h"
#include "fakes/TempDir.h"
#include "managers/MessageDispatcher.h"
#include "managers/wiring.h"
#include "utils/IPC.h"
#include "utils/RunPaths.h"

namespace kelm {

// The whole service in this process, on simulated devices and with its socket in a directory of its
// own. One a process, since the managers live to its end.
class RunningService {
 public:
    // `overrides` is JSON that is read over the base configuration, key by key.
    explicit RunningService(const std::string& overrides = "{\"none\": 0}")
        : m_runDir("KELM_RUN_DIR", m_dir.path()) {
        ServiceConfigParser& config = ServiceConfigParser::instance();
        config.appendConfigFile(m_dir.write("base", kConfig), true);
        config.appendConfigFile(m_dir.write("overrides", overrides), true);
        connectPorts();
        if (!dispatcher().isReady()) throw std::runtime_error("the service did not start");
    }
    ~RunningService() {
        if (m_stopped) return;
        EXPECT_TRUE(dispatcher().stopService());
    }
    RunningService(const RunningService&) = delete;
    RunningService& operator=(const RunningService&) = delete;

    static MessageDispatcher& dispatcher() { return MessageDispatcher::instance(); }
    std::string path() const { return RunPaths::serviceSocket(); }

    // Whether the service still lets a new client in and out.
    bool serves() const {
        RawClient client(path());
        const uint64_t id = client.registerClient("probe");
        return id != 0 && client.unregisterClient(id) == 0 && client.waitClosed();
    }

    // Stops the service; false if something is left, or it takes longer than the limit.
    bool stopWithin(std::chrono::milliseconds limit) {
        m_stopped = true;
        std::future<bool> stopped =
            std::async(std::launch::async, [] { return dispatcher().stopService(); });
        return stopped.wait_for(limit) == std::future_status::ready && stopped.get();
    }

    // The lowest connection number of a client: below are the two listeners, for clients and tools.
    static constexpr int kFirstClientNumber = 2;

    // Whether no connection but the listeners is left.
    static bool noConnections() {
        for (int number = kFirstClientNumber; number < IPC::IPC_CONN_FD_MAX; ++number) {
            if (IPC::ConnectionBase::findConnection(number)) return false;
        }
        return true;
    }

 private:
    static constexpr const char* kConfig = R"({
    "fake_device_settings": {
        "enable_fake_device": true,
        "fake_device_number": 2,
        "alloc_graph_latency": 1,
        "load_tensor_latency": 1,
        "get_result_latency": 1,
        "latency_distribution_stddev": 0.0
    }
})";

    TempDir m_dir;
    ScopedEnv m_runDir;
    bool m_stopped = false;
};

}  // namespace kelm
