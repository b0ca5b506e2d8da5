#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "utils/FpsCounter.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {

class ClientConnection;

// One registered client process: its connection and its counters. Running, then departing; there is
// no way back.
//
// Threads: any. Owns: a share of the connection. Locks: m_mutex, then the fps counter's.
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

    bool isRunning() EXCLUDES(m_mutex);
    void setRunningState(bool running) EXCLUDES(m_mutex);

    // Whether the client has fewer live tasks than its limit.
    bool allowInferTask() EXCLUDES(m_mutex);
    void increaseTaskCount() EXCLUDES(m_mutex);
    // Also counts a finished task into the rate.
    void decreaseTaskCount() EXCLUDES(m_mutex);
    void increaseInferenceTimes() EXCLUDES(m_mutex);
    uint64_t getInferenceTimes() EXCLUDES(m_mutex);
    void increaseWaitingInferenceNum() EXCLUDES(m_mutex);
    void decreaseWaitingInferenceNum() EXCLUDES(m_mutex);
    uint64_t getWaitingInferenceNum() EXCLUDES(m_mutex);

    // Finished tasks per second over the window.
    float getFps() { return m_fpsCounter.getFps(); }

 private:
    const uint64_t m_id;
    const std::shared_ptr<const std::string> m_name;
    const std::shared_ptr<ClientConnection> m_connection;
    const uint16_t m_apiMajorVersion;
    const uint16_t m_apiMinorVersion;

    Mutex m_mutex;
    bool m_running GUARDED_BY(m_mutex) = true;
    uint64_t m_inferenceTimes GUARDED_BY(m_mutex) = 0;
    uint64_t m_waitingInferenceNum GUARDED_BY(m_mutex) = 0;
    uint32_t m_taskCount GUARDED_BY(m_mutex) = 0;
    FpsCounter m_fpsCounter;
    const uint32_t m_maxTaskNumber;  // all ones: no limit
};

}  // namespace kelm
