#include "tools/gateway/ModelRegistry.h"

#include <utility>

#include "tools/gateway/Failure.h"

namespace kelm::gateway {

std::shared_ptr<Model> ModelRegistry::find(const std::string& name,
                                           const std::string& version) const {
    MutexLock lock(m_mutex);
    const auto found = m_models.find(name);
    if (found == m_models.end()) {
        throw Failure(Cause::kNotFound, "there is no model '" + name + "'");
    }
    const std::string& serves = found->second->description().version;
    if (!version.empty() && version != serves) {
        throw Failure(Cause::kNotFound, "model '" + name + "' has no version '" + version +
                                            "'; version '" + serves + "' serves");
    }
    return found->second;
}

void ModelRegistry::put(std::shared_ptr<Model> model) {
    MutexLock lock(m_mutex);
    m_models[model->description().name].swap(model);
}

void ModelRegistry::remove(const std::string& name) {
    MutexLock lock(m_mutex);
    m_models.erase(name);
}

std::vector<std::shared_ptr<Model>> ModelRegistry::all() const {
    MutexLock lock(m_mutex);
    std::vector<std::shared_ptr<Model>> all;
    for (const auto& [name, model] : m_models) all.push_back(model);
    return all;
}

}  // namespace kelm::gateway
