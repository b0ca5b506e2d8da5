#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "client/Client.h"
#include "client/EventReader.h"
#include "client/SnapshotReader.h"
#include "tools/kelmctl/TopMoves.h"
#include "utils/Mutex.h"
#include "utils/UniqueFd.h"

namespace kelm::ctl {

// What has come since the last look; the newest of each kind.
struct TopNews {
    std::optional<client::ServiceStatus> status;
    std::optional<client::Snapshot> snapshot;
    // Not only new ones: nothing may follow for long on those that were taken while paused.
    std::optional<TopMoves> moves;
    // Why there is none, as of now; empty while there is one.
    std::string statusWhy;
    std::string snapshotWhy;
};

// Asks for the status at an interval and reads the streams of snapshots and events, each on a
// connection of its own that is made again whenever it was lost. The service lists it as the client
// "kelmctl".
//
// Threads: three of its own; any may call.
// Owns: the connections.
// Locks: m_mutex, a leaf.
class TopFeed {
 public:
    explicit TopFeed(std::chrono::milliseconds interval = std::chrono::seconds(1));
    ~TopFeed();  // waits for a query under way and unregisters, 3 seconds at most
    TopFeed(const TopFeed&) = delete;
    TopFeed& operator=(const TopFeed&) = delete;

    TopNews take() EXCLUDES(m_mutex);
    // For poll(): readable when there are news; take() makes it quiet.
    int fd() const { return m_wakeFd.get(); }

 private:
    void statusRoutine();
    void snapshotRoutine();
    void eventRoutine();
    // Until the connection is lost; the reason.
    std::string followStatus();
    std::string followSnapshots();
    void followEvents();
    // The reader, for the destructor to interrupt; false when that has come first.
    bool publish(std::shared_ptr<client::SnapshotReader> reader) EXCLUDES(m_mutex);
    bool publish(std::shared_ptr<client::EventReader> reader) EXCLUDES(m_mutex);
    void tell(const TopMoves& moves) EXCLUDES(m_mutex);
    // False when told to stop.
    bool waitInterval() EXCLUDES(m_mutex);
    void wakeReader() const;

    const std::chrono::milliseconds m_interval;
    const UniqueFd m_wakeFd;
    Mutex m_mutex;
    CondVar m_stopped;
    bool m_stop GUARDED_BY(m_mutex) = false;
    TopNews m_news GUARDED_BY(m_mutex);
    std::shared_ptr<client::SnapshotReader> m_reader GUARDED_BY(m_mutex);
    std::shared_ptr<client::EventReader> m_events GUARDED_BY(m_mutex);
    std::thread m_statusThread;
    std::thread m_snapshotThread;
    std::thread m_eventThread;
};

}  // namespace kelm::ctl
