#pragma once

#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include "accelerators/TensorClient.h"
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
        ::setenv("KELM_TEST_DAEMON", KELM_DAEMON, 1);
        ::setenv("KELM_TEST_CTL", KELM_CTL, 1);
        m_files.write("first.graph", kFirst);
        m_files.write("second.graph", kSecond);
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
    // Where a service that is started from here on looks for the two libraries.
    void useLibraries(const std::string& directory) { m_libraries = directory; }
    void preload(const std::string& library) { m_preloaded = ":" + library; }

    // `sections` are members of the configuration, `environment` is of the form NAME=value.
    void startService(const std::string& sections = "", std::vector<std::string> environment = {}) {
        m_files.write("install/config/kelm_service.config",
                      R"({"security_settings": {"user_group": ""})" +
                          (sections.empty() ? "" : ", " + sections) + "}");
        for (const std::string& setting : m_host.environment(m_libraries)) {
            const bool preloads = setting.starts_with("LD_PRELOAD=");
            environment.push_back(preloads ? setting + m_preloaded : setting);
        }
        environment.push_back("KELM_INSTALL_DIR=" + m_files.path() + "/install");
        environment.push_back("PATH=" + m_files.path() + "/path:/usr/bin:/bin");
        start(1, "", environment);
        service().useRunDir();
    }

    // A client process on two graphs that checks every result.
    std::future<std::string> checkedLoad(int seconds, const std::string& options = "") {
        const std::string command = KELM_SIMULATOR_DIR "/kelm-sim-load --seconds " +
                                    std::to_string(seconds) + " --graph " + m_files.path() +
                                    "/first.graph --graph " + m_files.path() + "/second.graph " +
                                    options + " 2>&1";
        return std::async(std::launch::async, [command] {
            std::string text;
            FILE* output = ::popen(command.c_str(), "re");
            for (int c = 0; output != nullptr && (c = std::fgetc(output)) != EOF;) {
                text += static_cast<char>(c);
            }
            return output != nullptr && ::pclose(output) == 0 ? "" : "the load: " + text;
        });
    }

    static LoadPlan plan(const std::string& name, std::vector<std::string> graphs) {
        LoadPlan result;
        result.name = name;
        result.graphs = std::move(graphs);
        return result;
    }
    static LoadPlan twoGraphs(const std::string& name) { return plan(name, {kFirst, kSecond}); }
    client::ServiceStatus status() {
        const auto client = client::Client::connect(path());
        const auto status = client ? client.value()->queryStatus() : client.error();
        EXPECT_TRUE(status) << status.error().text();
        return status ? status.value() : client::ServiceStatus();
    }

    // Empty, or what was wrong. Devices leave and return after a reset only in this and in the
    // other waits.
    std::string resultOf(std::future<std::string>& load) {
        const auto ended = [&] {
            return load.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready;
        };
        return waitWithEvents(ended, std::chrono::seconds(60)) ? load.get() : "no end of the load";
    }
    // Whether the line is told so often, now or in time.
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
    bool waitWithEvents(Predicate predicate,
                        std::chrono::milliseconds limit = std::chrono::seconds(20)) {
        const auto takeAndAsk = [&] {
            std::ranges::move(m_host.takeEvents(), std::back_inserter(m_events));
            if (predicate()) return true;
            std::this_thread::sleep_for(kBetweenLooks);
            return false;
        };
        return eventually(takeAndAsk, limit);
    }

 private:
    // The first line says what the graph is, the rest makes another one of it.
    static constexpr const char* kFirst =
        "KELMSIM input=5000 output=777 memory=9 micros=1500\nfirst";
    static constexpr const char* kSecond =
        "KELMSIM input=64 output=9000 memory=5 micros=700\nsecond";
    static constexpr std::chrono::milliseconds kBetweenLooks{1};

    TempDir m_files;
    std::string m_libraries = KELM_SIMULATOR_DIR;
    std::string m_preloaded;
    simulator::SimulatedHost m_host{m_files.path() + "/sim"};
    std::vector<std::string> m_events;
};

}  // namespace kelm
