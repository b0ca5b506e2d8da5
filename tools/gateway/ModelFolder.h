#pragma once

#include <map>
#include <string>

#include "utils/UniqueFd.h"

namespace kelm::gateway {

// The folder of the models' descriptions.
//
// Threads: one. Owns: the descriptor that tells of changes.
class ModelFolder {
 public:
    // Throws if there is no such folder.
    explicit ModelFolder(std::string path);

    // For poll(): readable when something has changed, until takeChanges().
    int fd() const { return m_watch.get(); }
    void takeChanges() const;
    // The texts of all files `name.json` by name; of one that cannot be read it is empty. Throws if
    // the folder cannot be read.
    std::map<std::string, std::string> read() const;
    // The path of a file that a description names.
    std::string resolve(const std::string& file) const;

 private:
    const std::string m_path;
    UniqueFd m_watch;
};

}  // namespace kelm::gateway
