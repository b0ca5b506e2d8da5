#pragma once

#include <map>
#include <memory>
#include <string>
#include <thread>

#include "tools/gateway/Engine.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {
class Client;
}

namespace kelm::gateway {

// The service, by one connection that is made as soon as it is there, and anew when it was lost.
//
// Threads: any; one of its own connects and looks at the devices each half second.
// Owns: the connection, which graphs of it outlive only to be freed. Locks: m_mutex, a leaf.
class LibkelmEngine : public Engine, public NonCopyable {
 public:
    // An empty path is the usual socket.
    explicit LibkelmEngine(std::string socketPath);
    ~LibkelmEngine() override;

    std::unique_ptr<EngineGraph> load(const ModelDescription& model,
                                      const std::string& graphFile) override EXCLUDES(m_mutex);
    std::string whyNot() const override EXCLUDES(m_mutex);
    // Of the 32 that a status has room for.
    uint32_t devices(int32_t subclass) const override EXCLUDES(m_mutex);

 private:
    void watch() EXCLUDES(m_mutex);
    struct Seen {
        std::string whyNot;
        std::map<int32_t, uint32_t> devices = {};  // by subclass
    };
    Seen look() EXCLUDES(m_mutex);
    std::shared_ptr<Client> connected() const EXCLUDES(m_mutex);

    const std::string m_socketPath;
    mutable Mutex m_mutex;
    CondVar m_ends;
    bool m_isEnding GUARDED_BY(m_mutex) = false;
    std::shared_ptr<Client> m_client GUARDED_BY(m_mutex);
    Seen m_seen GUARDED_BY(m_mutex) = {"not connected to the service yet"};
    std::thread m_thread;
};

}  // namespace kelm::gateway
