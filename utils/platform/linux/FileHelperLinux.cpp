#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "utils/FileHelper.h"
#include "utils/Log.h"

namespace {

constexpr uid_t kKeepUser = static_cast<uid_t>(-1);
constexpr gid_t kKeepGroup = static_cast<gid_t>(-1);

bool invalidArgument() {
    errno = EINVAL;
    return false;
}

bool isExistingFile(const char* path) {
    if (path == nullptr) return invalidArgument();
    if (FileHelper::exist(path)) return true;
    LOG_ERROR("Error: file %s doesn't exist.", path);
    return invalidArgument();
}

// The group's id, the value that keeps the group for a null name, or nothing for an unknown one.
std::optional<gid_t> findGroup(const char* group) {
    if (group == nullptr) return kKeepGroup;
    const struct group* entry = ::getgrnam(group);
    if (entry != nullptr) return entry->gr_gid;
    LOG_ERROR("Error: Cannot get group id of group: %s\n", group);
    return std::nullopt;
}

const char* orNull(const std::string& name) { return name.empty() ? nullptr : name.c_str(); }
const char* orNoChange(const std::string& name) {
    return name.empty() ? "no_change" : name.c_str();
}

}  // namespace

bool FileHelper::exist(const char* path) {
    struct stat info {};
    return path != nullptr && ::stat(path, &info) == 0;
}

bool FileHelper::changeFileMode(const char* path, int mode) {
    if (!isExistingFile(path)) return false;
    return mode < 0 || ::chmod(path, static_cast<mode_t>(mode)) == 0;
}

bool FileHelper::changeFileOwner(const char* path, const char*, const char* group) {
    if (!isExistingFile(path)) return false;
    const std::optional<gid_t> id = findGroup(group);
    return id && ::chown(path, kKeepUser, *id) == 0;
}

// 0 is the standard input, and stands for no descriptor in many places.
bool FileHelper::changeFileDesMode(int fd, int mode) {
    if (fd < 1) return invalidArgument();
    return mode < 0 || ::fchmod(fd, static_cast<mode_t>(mode)) == 0;
}

bool FileHelper::changeFileDesOwner(int fd, const char*, const char* group) {
    if (fd < 1) return invalidArgument();
    const std::optional<gid_t> id = findGroup(group);
    return id && ::fchown(fd, kKeepUser, *id) == 0;
}

bool FileHelper::updateAccessAttribute(int fd, const std::string& group, const std::string& user,
                                       int mode) {
    if (!changeFileDesOwner(fd, orNull(user), orNull(group))) {
        LOG_ERROR("Error: Failed to set owner to fd: %d", fd);
        return false;
    }
    if (!changeFileDesMode(fd, mode)) {
        LOG_ERROR("Error: Failed to set mode to fd: %d", fd);
        return false;
    }
    LOG_INFO("access attributes of fd %d: user=%s group=%s", fd, orNoChange(user),
             orNoChange(group));
    return true;
}

bool FileHelper::updateAccessAttribute(const char* path, const std::string& group,
                                       const std::string& user, int mode) {
    if (!changeFileOwner(path, orNull(user), orNull(group))) {
        LOG_ERROR("Error: Failed to set owner to file: %s", path);
        return false;
    }
    if (!changeFileMode(path, mode)) {
        LOG_ERROR("Error: Failed to set owner and mode to file: %s", path);
        return false;
    }
    LOG_INFO("access attributes of file %s: user=%s group=%s", path, orNoChange(user),
             orNoChange(group));
    return true;
}

bool FileHelper::updateAccessAttribute(const std::string& path, const std::string& group,
                                       const std::string& user, int mode) {
    return updateAccessAttribute(path.c_str(), group, user, mode);
}
