#pragma once

#include "config/ServiceConfigParser.h"
#include "fakes/ServiceConfig.h"
#include "managers/MessageDispatcher.h"
#include "managers/wiring.h"
#include "utils/IPC.h"
#include "utils/RunPaths.h"

namespace kelm {

// The whole service in this process, on simulated devices and with its sockets in a directory of
// its own. One a process, since the managers live to its end.
class ServiceInProcess {
 public:
    // `overrides` is JSON that is read over the base configuration, key by key.
    explicit ServiceInProcess(const std::string& overrides)
        : m_runDir("KELM_RUN_DIR", m_dir.path()) {
        ServiceConfigParser& config = ServiceConfigParser::instance();
        config.appendConfigFile(m_dir.write("base", ServiceConfig::kBase), true);
        config.appendConfigFile(m_dir.write("overrides", overrides), true);
    }

    // Arguments and environment are those of a process, and of no use here.
    void start(const std::vector<std::string>&, const std::vector<std::string>&) {
        connectPorts();
        m_running = true;
    }
    static bool waitReady() { return dispatcher().isReady(); }
    bool isRunning() const { return m_running; }
    // False if something is left, or it takes longer than the limit.
    bool stop(std::chrono::milliseconds limit) {
        m_running = false;
        auto stopped = std::async(std::launch::async, [] { return dispatcher().stopService(); });
        return stopped.wait_for(limit) == std::future_status::ready && stopped.get();
    }

    static int pid() { return ::getpid(); }
    static std::string log() { return {}; }
    static std::string socketPath() { return RunPaths::serviceSocket(); }
    const TempDir& files() const { return m_dir; }

    static MessageDispatcher& dispatcher() { return MessageDispatcher::instance(); }
    // The lowest connection number of a client: below are the listeners for clients and tools.
    static constexpr int kFirstClientNumber = 3;
    // Whether no connection but the listeners is left.
    static bool noConnections() {
        for (int number = kFirstClientNumber; number < IPC::IPC_CONN_FD_MAX; ++number) {
            if (IPC::ConnectionBase::findConnection(number)) return false;
        }
        return true;
    }

 private:
    TempDir m_dir;
    ScopedEnv m_runDir;
    bool m_running = false;
};

}  // namespace kelm
