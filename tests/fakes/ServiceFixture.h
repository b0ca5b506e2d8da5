#pragma once

#include <iterator>

#include "fakes/ServiceConfig.h"
#include "protocol/src/InfoPackage.h"
#include "tests/wire/WireClient.h"

namespace kelm {

// A case meets the real service, a ServiceInProcess or a ServiceProcess, and passes only if that
// ends in time and in order, and without a finding of a sanitizer.
template <class Service>
class ServiceFixture : public ::testing::Test {
 protected:
    static constexpr std::chrono::milliseconds kTimeToEnd{10000};

    // `sections` are members of the configuration, `environment` is of the form NAME=value.
    void start(const std::string& sections = "", const std::vector<std::string>& environment = {}) {
        m_service.emplace("{" + (sections.empty() ? R"("none": 0)" : sections) + "}");
        m_service->start({}, environment);
        if (!m_service->waitReady()) throw std::runtime_error("not ready: " + lastLines());
    }
    // Three simulated devices whose two steps of a task take so long each. `settings` are further
    // members of "service_settings".
    void start(int latencyMs, const std::string& settings = "",
               const std::vector<std::string>& environment = {}) {
        start(ServiceConfig::fakeDevices(3, latencyMs) + R"(, "service_settings": {)" + settings +
                  "}",
              environment);
    }

    void TearDown() override {
        if (m_service && m_service->isRunning()) endService();
    }

    void endService() {
        EXPECT_TRUE(m_service->stop(kTimeToEnd)) << lastLines();
        const std::string log = m_service->log();
        for (const char* words : {"Sanitizer", "runtime error", "leave without waiting"}) {
            EXPECT_THAT(log, Not(HasSubstr(words)));
        }
    }

    Service& service() { return *m_service; }
    const Service& service() const { return *m_service; }
    std::string path() const { return m_service->socketPath(); }

    // Whether a client gets all that it asks for: a whole life on a connection of its own.
    bool serves() const {
        WireClient client(path(), "probe");
        return client.id() != 0 && client.infers(client.createGraph({"probe's"}).graphId) &&
               client.unregister() && client.waitClosed();
    }

    // What a tool on the snapshot socket is told now.
    std::unique_ptr<InfoPackage> readPackage() const {
        const auto socket = std::filesystem::path(path()).replace_filename("kelm_snapshot.sock");
        auto package = std::make_unique<InfoPackage>();
        EXPECT_TRUE(WireClient(socket).readBytes(package.get(), sizeof(*package)));
        return package;
    }

    // Without the file to which each thread adds its name as it starts.
    size_t descriptors() const {
        const auto counts = [](const std::filesystem::path& entry) {
            std::error_code closed;
            const auto target = std::filesystem::read_symlink(entry, closed);
            return !closed && target.filename() != "thread.info";
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

    // The end of the service's log.
    std::string lastLines() const {
        const std::string log = m_service->log();
        return log.substr(log.size() - std::min<size_t>(log.size(), 4000));
    }

 private:
    std::string process(const char* file) const {
        return "/proc/" + std::to_string(m_service->pid()) + "/" + file;
    }

    std::optional<Service> m_service;
};

class ServiceProcess;
using SystemFixture = ServiceFixture<ServiceProcess>;

}  // namespace kelm
