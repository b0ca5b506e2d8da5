#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/gateway/Model.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm::gateway {

// The models that serve, by name.
//
// Threads: any. Locks: m_mutex, a leaf; a model that is dropped ends elsewhere.
class ModelRegistry : public NonCopyable {
 public:
    // Throws a Failure if there is none, or none of this version (empty: any).
    std::shared_ptr<Model> find(const std::string& name, const std::string& version = {}) const
        EXCLUDES(m_mutex);
    // Null if there is none.
    std::shared_ptr<Model> lookUp(const std::string& name) const EXCLUDES(m_mutex);
    // Replaces what has the same name; requests in flight end on that.
    void put(std::shared_ptr<Model> model) EXCLUDES(m_mutex);
    void remove(const std::string& name) EXCLUDES(m_mutex);
    std::vector<std::shared_ptr<Model>> all() const EXCLUDES(m_mutex);

 private:
    mutable Mutex m_mutex;
    std::map<std::string, std::shared_ptr<Model>> m_models GUARDED_BY(m_mutex);
};

}  // namespace kelm::gateway
