#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <string>
#include <thread>

#include "reporting/PopulationListener.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/UniqueFd.h"

namespace kelm {

// Tells the service manager of the machine how the service is, over the datagram socket that
// NOTIFY_SOCKET names: READY=1, then STATUS= with the numbers of devices and clients, on change and
// at most once a second, then STOPPING=1. Without the variable, or with one that is of no use,
// nothing happens.
//
// Starting, then ready, then stopping; starting may also be followed by stopping.
//
// Threads: any, after the construction. "KelmNotify" sends, and sleeps while nothing changes; there
// is none without a socket. Locks: m_mutex is a leaf; nothing is sent under it.
class SystemdNotifier final : public NonCopyable, public PopulationListener {
 public:
    // Takes the variable out of the environment, so that children do not answer for the service.
    // Called before other threads are started, since they may read the environment.
    SystemdNotifier();
    // Returns when the last word is said.
    ~SystemdNotifier();

    void ready() EXCLUDES(m_mutex);
    void stopping() EXCLUDES(m_mutex);

    void addDevices(int change) override EXCLUDES(m_mutex);
    void addClients(int change) override EXCLUDES(m_mutex);

 private:
    enum class Phase { Starting, Ready, Stopping };
    struct State {
        Phase phase = Phase::Starting;
        int devices = 0;
        int clients = 0;
        bool operator==(const State&) const = default;
    };

    bool setAddress(const char* name);
    void enter(Phase phase) EXCLUDES(m_mutex);
    void notifyRoutine() EXCLUDES(m_mutex);
    // Waits until there is something to tell after what was told last.
    State waitForNews(const State& told, std::chrono::steady_clock::time_point nextStatus)
        EXCLUDES(m_mutex);
    static std::string describe(const State& news, const State& told);
    // False if the manager had no room for it in time, or a signal came: it may be tried again.
    bool send(const std::string& text) const;

    sockaddr_un m_address{};
    socklen_t m_addressLength = 0;
    UniqueFd m_socket;  // none: nothing is told

    Mutex m_mutex;
    CondVar m_changed;
    State m_state GUARDED_BY(m_mutex);
    std::thread m_thread;
};

}  // namespace kelm
