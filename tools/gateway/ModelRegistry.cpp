#include "tools/gateway/ModelRegistry.h"

#include <utility>

#include "tools/gateway/Failure.h"

namespace kelm::gateway {

std::shared_ptr<Model> ModelRegistry::find(const std::string& name,
                                           const std::string& version) const {
    auto model = lookUp(name);
    if (model == nullptr) throw Failure(Cause::kNotFound, "there is no model '" + name + "'");
    const std::string& serves = model->description().version;
    if (!version.empty() && version != serves) {
        throw Failure(Cause::kNotFound, "model '" + name + "' has no version '" + version +
                                            "'; version '" + serves + "' serves");
    }
    return model;
}

std::shared_ptr<Model> ModelRegistry::lookUp(const std::string& name) const {
    MutexLock lock(m_mutex);
    const auto found = m_models.find(name);
    return found != m_models.end() ? found->second : nullptr;
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
