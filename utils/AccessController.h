#pragma once

#include <string>
#include <tuple>

#include "utils/Singleton.h"

namespace kelm {

// The group, user and mode that the service's files and sockets get. Set at start-up, before other
// threads use it.
class AccessController : public Singleton<AccessController> {
 public:
    // Mode, user, group.
    using Attribute = std::tuple<int, std::string, std::string>;

    void setAccessAttribute(const std::string& user, const std::string& group, int mode);
    Attribute getAccessAttribute() const;
    // Apply the stored values; false on failure, logged.
    bool updateAccessAttribute(int fd) const;
    bool updateAccessAttribute(const std::string& path) const;
    bool updateAccessAttribute(const char* path) const;

 private:
    std::string m_group;
    std::string m_user;
    int m_mode = 0660;  // owner and group may read and write
};

}  // namespace kelm
