#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "fakes/RawClient.h"
#include "fakes/ServiceProcess.h"

namespace kelm {

// A case meets the real service and passes only if that ends in time with status 0, in order and
// without a finding of a sanitizer.
class SystemFixture : public ::testing::Test {
 protected:
    static constexpr std::chrono::milliseconds kTimeToEnd{10000};

    // Three simulated devices whose two steps of a task take so long each. `settings` are further
    // members of "service_settings", `environment` is of the form NAME=value.
    void start(int latencyMs, const std::string& settings = "",
               const std::vector<std::string>& environment = {}) {
        startWith(fakeDevices(3, latencyMs) + R"(, "service_settings": {)" + settings + "}",
                  environment);
    }
    // `sections` are members of the configuration.
    void startWith(const std::string& sections, const std::vector<std::string>& environment = {}) {
        m_service.emplace("{" + sections + "}");
        m_service->start({}, environment);
        if (!m_service->waitReady()) throw std::runtime_error("not ready: " + lastLines());
    }
    static std::string fakeDevices(int number, int latencyMs) {
        const std::string latency = std::to_string(latencyMs);
        return R"("fake_device_settings": {"fake_device_number": )" + std::to_string(number) +
               R"(, "load_tensor_latency": )" + latency + R"(, "get_result_latency": )" + latency +
               "}";
    }

    void TearDown() override {
        if (m_service && m_service->pid() > 0) endService();
    }

    void endService() {
        m_service->signal(SIGUSR1);
        EXPECT_EQ(m_service->waitExit(kTimeToEnd), 0) << lastLines();
        const std::string log = m_service->log();
        for (const char* words : {"Sanitizer", "runtime error", "leave without waiting"}) {
            const size_t at = log.find(words);
            EXPECT_EQ(at, std::string::npos) << log.substr(at == std::string::npos ? 0 : at, 6000);
        }
    }

    ServiceProcess& service() { return *m_service; }
    const ServiceProcess& service() const { return *m_service; }
    std::string path() const { return m_service->socketPath(); }

    // Without the file to which each thread adds its name as it starts.
    size_t descriptors() const {
        const auto counts = [](const std::filesystem::path& entry) {
            std::error_code gone;
            const auto target = std::filesystem::read_symlink(entry, gone);
            return !gone && target.filename() != "thread.info";
        };
        const std::filesystem::directory_iterator all(process("fd"));
        return static_cast<size_t>(std::count_if(begin(all), end(all), counts));
    }
    size_t threads() const {
        const std::filesystem::directory_iterator all(process("task"));
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }
    // Resident memory in bytes.
    size_t resident() const {
        std::ifstream file(process("statm"));
        size_t total = 0;
        size_t pages = 0;
        file >> total >> pages;
        return pages * static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    }

    // Seconds of processor time that the service has taken.
    double processorTime() const {
        std::ifstream file(process("stat"));
        std::string text;
        std::getline(file, text);
        std::istringstream fields(text.substr(text.rfind(')') + 1));
        const std::vector<std::string> values{std::istream_iterator<std::string>(fields), {}};
        return (std::stod(values.at(11)) + std::stod(values.at(12))) /
               static_cast<double>(::sysconf(_SC_CLK_TCK));
    }

    // Whether a client gets all that it asks for: a whole life on a connection of its own.
    bool serves() const {
        RawClient client(path());
        const uint64_t id = client.registerClient("probe");
        const uint64_t graph = client.createGraph(id, "probe", "graph of the probe");
        return id != 0 && graph != 0 && infers(client, id, graph) &&
               client.unregisterClient(id) == KELM_OK && client.waitClosed();
    }
    static bool infers(RawClient& client, uint64_t id, uint64_t graph) {
        if (!client.send(RawClient::inferRequest(id, graph, 1))) return false;
        const auto answer = client.receiveType(KELM_MESSAGE_INFER_TASK_RSP);
        return answer && answer->as<KelmMsgRsp>().status == KELM_OK &&
               client.receiveType(KELM_MESSAGE_TASK_DONE_EVT);
    }

    std::string lastLines() const {
        const std::string log = m_service->log();
        constexpr size_t kEnough = 4000;
        return log.size() > kEnough ? log.substr(log.size() - kEnough) : log;
    }

 private:
    std::string process(const char* file) const {
        return "/proc/" + std::to_string(m_service->pid()) + "/" + file;
    }

    std::optional<ServiceProcess> m_service;
};

}  // namespace kelm
