#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <string>

#include "tools/gateway/Chores.h"
#include "tools/gateway/Engine.h"
#include "tools/gateway/ModelDescription.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm::gateway {

class Inference;

// A version of a model that is loaded. Requests hold it until they have ended, so a version that
// was replaced ends with its last one, on the thread for chores.
//
// Threads: any. Owns: the graph. The engine and the chores are borrowed for its life.
// Locks: m_mutex, a leaf.
class Model : public NonCopyable {
 public:
    // Loads, checks sizes, warms up; throws a Failure. May wait long.
    static std::shared_ptr<Model> load(Engine& engine, Chores& chores,
                                       const ModelDescription& description,
                                       const std::string& graphFile);

    const ModelDescription& description() const { return m_description; }
    EngineGraph& graph() const { return *m_graph; }
    Chores& chores() const { return m_chores; }
    // Why it could not run a task now; empty if it could.
    std::string whyNot() const;
    // That could run it.
    uint32_t devices() const { return m_engine.devices(m_description.subclass); }

    // Throws a Failure if a request would be refused now.
    void requireRoom() const;
    // A place in the window and the queue, given back by leave(). Throws a Failure.
    void enter();
    void leave() { m_entered.fetch_sub(1); }
    uint32_t entered() const { return m_entered.load(); }
    // Those beyond the window.
    uint32_t waiting() const;

    // An inference that starts.
    void begin(const std::weak_ptr<Inference>& inference) EXCLUDES(m_mutex);
    // If no device is left, takes back what waits for one: others may have one.
    void takeBack() EXCLUDES(m_mutex);

 private:
    Model(Engine& engine, Chores& chores, ModelDescription description,
          std::unique_ptr<EngineGraph> graph);
    void warmUp();
    [[noreturn]] void refuseFull() const;

    Engine& m_engine;
    Chores& m_chores;
    const ModelDescription m_description;
    const std::unique_ptr<EngineGraph> m_graph;
    std::atomic<uint32_t> m_entered{0};  // atomic: a count, which guards nothing else
    Mutex m_mutex;
    std::list<std::weak_ptr<Inference>> m_begun GUARDED_BY(m_mutex);
};

}  // namespace kelm::gateway
