#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "utils/FpsCounter.h"
#include "utils/NonCopyable.h"

namespace kelm {

class ClientConnection;

// One registered client process: its connection and its counters. Running, then departing; there is
// no way back.
//
// Threads: any. Owns: a share of the connection.
class KelmClient : public NonCopyable {
 public:
    KelmClient(uint64_t id, std::string name, std::shared_ptr<ClientConnection> connection,
               uint16_t apiMajorVersion, uint16_t apiMinorVersion);
    ~KelmClient();

    uint64_t getId() const { return m_id; }
    const std::string& getName() const { return *m_name; }
    // The name for tasks, which keep it beyond the client's life.
    const std::shared_ptr<const std::string>& getSharedName() const { return m_name; }
    int getSocket() const;
    const std::shared_ptr<ClientConnection>& getConnection() const { return m_connection; }
    uint16_t getApiMajorVersion() const { return m_apiMajorVersion; }
    uint16_t getApiMinorVersion() const { return m_apiMinorVersion; }

    bool isRunning() const { return m_running.load(); }
    void setRunningState(bool running) { m_running.store(running); }

    // Whether the client has fewer live tasks than its limit. Not a reservation: only the task
    // manager's one thread asks and then creates a task.
    bool allowInferTask() const { return m_taskCount.load() < m_maxTaskNumber; }
    void increaseTaskCount() { m_taskCount.fetch_add(1); }
    // Also counts a finished task into the rate.
    void decreaseTaskCount();
    void increaseInferenceTimes() { m_inferenceTimes.fetch_add(1); }
    uint64_t getInferenceTimes() const { return m_inferenceTimes.load(); }
    // The number may stay too high for each task that is canceled in a queue, see
    // TaskSchedulerFCFS::removeWaitingTask().
    void increaseWaitingInferenceNum() { m_waitingInferenceNum.fetch_add(1); }
    void decreaseWaitingInferenceNum() { m_waitingInferenceNum.fetch_sub(1); }
    uint64_t getWaitingInferenceNum() const { return m_waitingInferenceNum.load(); }

    // Finished tasks per second over the window.
    float getFps() { return m_fpsCounter.getFps(); }

 private:
    const uint64_t m_id;
    const std::shared_ptr<const std::string> m_name;
    const std::shared_ptr<ClientConnection> m_connection;
    const uint16_t m_apiMajorVersion;
    const uint16_t m_apiMinorVersion;

    // Atomics: a mark and counts, each alone.
    std::atomic<bool> m_running{true};
    std::atomic<uint64_t> m_inferenceTimes{0};
    std::atomic<uint64_t> m_waitingInferenceNum{0};
    std::atomic<uint32_t> m_taskCount{0};
    FpsCounter m_fpsCounter;
    const uint32_t m_maxTaskNumber;  // all ones: no limit
};

}  // namespace kelm
