#pragma once

#include <atomic>
#include <string>

#include "tools/gateway/Chores.h"
#include "tools/gateway/ModelKeeper.h"
#include "tools/gateway/ModelRegistry.h"
#include "utils/NonCopyable.h"

namespace kelm::gateway {

// What both protocols serve: the models, and whether requests are wanted. Servers end before it.
//
// Threads: any. Owns: models and their keeper. The engine is borrowed for its life.
class Gateway : public NonCopyable {
 public:
    static constexpr const char* kName = "kelm-gateway";

    // Throws if there is no such folder.
    Gateway(Engine& engine, const std::string& folder, ModelKeeper::Say say)
        : m_engine(engine),
          m_keeper(ModelFolder(folder), engine, m_chores, m_registry, std::move(say)) {}

    const ModelRegistry& models() const { return m_registry; }
    // A model serves, and could run now.
    bool isReady() const {
        return !m_isDraining && m_keeper.hasTriedAll() && m_engine.whyNot().empty() &&
               !m_registry.all().empty();
    }
    // Ready no more; requests are served on.
    void drain() { m_isDraining = true; }

 private:
    Engine& m_engine;
    std::atomic<bool> m_isDraining{false};  // atomic: a hint, which guards nothing
    Chores m_chores;
    ModelRegistry m_registry;
    ModelKeeper m_keeper;
};

}  // namespace kelm::gateway
