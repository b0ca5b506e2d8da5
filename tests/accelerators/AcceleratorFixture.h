#pragma once

#include "accelerators/TensorLoad.h"
#include "client/Client.h"
#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"
#include "tools/simulator/SimulatedHost.h"

namespace kelm {

// The real service in real mode, on simulated accelerators on a mock bus.
// Whatever happens, a device that is closed must have nothing of it left.
class AcceleratorFixture : public SystemFixture {
 protected:
    AcceleratorFixture() {
        namespace fs = std::filesystem;
        const std::string pkill = m_files.write("path/pkill", "#!/bin/sh\n");
        fs::permissions(pkill, fs::perms::owner_all);
        fs::create_directories(m_files.path() + "/install/bin");
        fs::create_symlink(KELM_SIMULATOR_DIR "/autoboot",
                           m_files.path() + "/install/bin/autoboot");
    }

    void TearDown() override {
        SystemFixture::TearDown();
        waitWithEvents([] { return true; });
        for (const std::string& event : m_events) {
            EXPECT_FALSE(event.starts_with("leak")) << event;
        }
    }

    simulator::SimulatedHost& host() { return m_host; }
    void plug(const std::string& device) { m_host.plug(device); }

    // `sections` are members of the configuration, `environment` is of the form NAME=value.
    void startService(const std::string& sections = "", std::vector<std::string> environment = {}) {
        m_files.write("install/config/kelm_service.config",
                      R"({"security_settings": {"user_group": ""})" +
                          (sections.empty() ? "" : ", " + sections) + "}");
        std::ranges::move(m_host.environment(KELM_SIMULATOR_DIR), std::back_inserter(environment));
        environment.push_back("KELM_INSTALL_DIR=" + m_files.path() + "/install");
        environment.push_back("PATH=" + m_files.path() + "/path:/usr/bin:/bin");
        start(1, "", environment);
    }

    static LoadPlan twoGraphs(const std::string& name) {
        return {.name = name,
                .graphs = {"KELMSIM input=5000 output=777 memory=9 micros=1500\nfirst",
                           "KELMSIM input=64 output=9000 memory=5 micros=700\nsecond"}};
    }
    client::ServiceStatus status() {
        const auto client = client::Client::connect(path());
        const auto status = client ? client.value()->queryStatus() : client.error();
        EXPECT_TRUE(status) << status.error().text();
        return status ? status.value() : client::ServiceStatus();
    }

    // Whether the line is told so often, now or in time. Devices leave and return after a reset
    // only in this and in the other waits.
    bool waitEvent(const std::string& line, size_t count = 1) {
        return waitWithEvents([&] { return eventCount(line) >= count; });
    }
    size_t eventCount(const std::string& line) const {
        return static_cast<size_t>(std::ranges::count(m_events, line));
    }
    // Whether the words come so often in the service's log.
    bool waitLogCount(const std::string& words, size_t count) {
        return waitWithEvents([&] { return logCount(words) >= count; });
    }
    size_t logCount(const std::string& words) {
        const std::string log = service().log();
        size_t count = 0;
        for (size_t at = 0; (at = log.find(words, at)) != std::string::npos; ++at) ++count;
        return count;
    }
    // Looks now and then: a loop without pauses would take a processor from the service.
    template <class Predicate>
    bool waitWithEvents(Predicate predicate) {
        const auto takeAndAsk = [&] {
            std::ranges::move(m_host.takeEvents(), std::back_inserter(m_events));
            if (predicate()) return true;
            std::this_thread::sleep_for(1ms);
            return false;
        };
        return eventually(takeAndAsk);
    }

 private:
    TempDir m_files;
    simulator::SimulatedHost m_host{m_files.path() + "/sim"};
    std::vector<std::string> m_events;
};

}  // namespace kelm
