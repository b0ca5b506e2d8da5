#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <thread>

#include "tools/gateway/ModelFolder.h"
#include "tools/gateway/ModelRegistry.h"
#include "utils/NonCopyable.h"
#include "utils/UniqueFd.h"

namespace kelm::gateway {

// Makes the registry follow the folder: a version is replaced once its successor is loaded, and
// stays if that is refused. What the service refuses is tried again every two seconds.
//
// Threads: one of its own does it all, and tells what it has done by `say`.
// Owns: the thread. Borrowed for its life: all that it is given.
class ModelKeeper : public NonCopyable {
 public:
    using Say = std::function<void(const std::string& line)>;
    ModelKeeper(ModelFolder folder, Engine& engine, Chores& chores, ModelRegistry& registry,
                Say say);
    ~ModelKeeper();

    // Whether all that was in the folder at the start has been tried.
    bool hasTriedAll() const { return m_hasTriedAll; }

 private:
    using Clock = std::chrono::steady_clock;
    struct Known {
        std::string text;
        std::string reason;    // why it does not serve; empty: it does
        bool isAgain = false;  // whether a later trial may succeed
    };

    void run();
    void follow();
    void load(const std::string& name, Known& known);
    bool mayTryAgain() const;
    bool waitForChange();

    const ModelFolder m_folder;
    Engine& m_engine;
    Chores& m_chores;
    ModelRegistry& m_registry;
    const Say m_say;
    const UniqueFd m_end;
    std::map<std::string, Known> m_known;    // the thread's
    std::atomic<bool> m_hasTriedAll{false};  // atomic: a hint, which guards nothing
    std::thread m_thread;
};

}  // namespace kelm::gateway
