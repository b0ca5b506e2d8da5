#include "utils/AccessController.h"

#include "utils/FileHelper.h"

namespace kelm {

// Without a lock: it is called once at the start, before there are other threads.
void AccessController::setAccessAttribute(const std::string& user, const std::string& group,
                                          int mode) {
    m_user = user;
    m_group = group;
    m_mode = mode;
}

AccessController::Attribute AccessController::getAccessAttribute() const {
    return {m_mode, m_user, m_group};
}

bool AccessController::updateAccessAttribute(int fd) const {
    return FileHelper::updateAccessAttribute(fd, m_group, m_user, m_mode);
}

bool AccessController::updateAccessAttribute(const std::string& path) const {
    return FileHelper::updateAccessAttribute(path, m_group, m_user, m_mode);
}

bool AccessController::updateAccessAttribute(const char* path) const {
    return FileHelper::updateAccessAttribute(path, m_group, m_user, m_mode);
}

}  // namespace kelm
