#pragma once

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

 private:
    void watch() EXCLUDES(m_mutex);
    // Why no task could run, by a look at the service.
    std::string look() EXCLUDES(m_mutex);
    std::shared_ptr<Client> connected() const EXCLUDES(m_mutex);

    const std::string m_socketPath;
    mutable Mutex m_mutex;
    CondVar m_ends;
    bool m_isEnding GUARDED_BY(m_mutex) = false;
    std::shared_ptr<Client> m_client GUARDED_BY(m_mutex);
    std::string m_whyNot GUARDED_BY(m_mutex) = "not connected to the service yet";
    std::thread m_thread;
};

}  // namespace kelm::gateway
