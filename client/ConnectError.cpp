#include "client/ConnectError.h"

#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>

#include "client/SystemError.h"
#include "client/UserGroups.h"
#include "utils/StringHelper.h"

namespace kelm::client {

namespace {

constexpr size_t kMaxPathLength = sizeof(sockaddr_un::sun_path) - 1;

// What lets the user in, where the group of the socket decides.
std::string remedy(const struct stat& socket, const UserGroups& user) {
    constexpr mode_t kGroupMay = S_IWGRP;
    if ((socket.st_mode & kGroupMay) == 0 || user.hasInSession(socket.st_gid)) {
        return StringHelper::format(
            "the socket's mode %04o keeps the group out; start the service "
            "again, which sets the mode",
            socket.st_mode & 07777u);
    }
    return user.adviceFor(socket.st_gid);
}

std::string denied(const std::string& path) {
    const UserGroups user = UserGroups::ofThisProcess();
    struct stat socket {};
    if (::stat(path.c_str(), &socket) != 0) {
        return "user " + user.user +
               " may not enter its directory; set KELM_RUN_DIR to another "
               "one, here and for the service, or give the user rights to it";
    }
    std::string names;
    for (const gid_t group : user.session) {
        names += (names.empty() ? "" : ", ") + UserGroups::nameOf(group);
    }
    return "it is for group " + UserGroups::nameOf(socket.st_gid) + ", and user " + user.user +
           " runs with " + names + "; " + remedy(socket, user);
}

std::string cause(const std::string& path, int code) {
    // The kernel is asked for the name that the field has room for.
    if (path.size() > kMaxPathLength) {
        return "its " + std::to_string(path.size()) + " characters are more than the " +
               std::to_string(kMaxPathLength) +
               " that a socket can have; set KELM_RUN_DIR to a shorter directory, here and for the "
               "service";
    }
    struct stat info {};
    switch (code) {
        case ENOENT:
            return "there is no such socket; start kelmdaemon, or set KELM_RUN_DIR to the "
                   "directory "
                   "that it was started with";
        case ECONNREFUSED:
            if (::stat(path.c_str(), &info) == 0 && !S_ISSOCK(info.st_mode)) {
                return "it is no socket; take it away and start kelmdaemon, or set KELM_RUN_DIR";
            }
            return "nothing listens on it, the service that made it has ended; start kelmdaemon "
                   "again";
        case EACCES:
            return denied(path);
        default:
            return describeSystemError(code);
    }
}

}  // namespace

Error connectError(const std::string& path, int code) {
    if (code == EAGAIN) return Error::timeout("connecting to " + path);
    const bool isThere = code != ENOENT && code != ECONNREFUSED;
    const std::string head = isThere ? "cannot connect to " : "no service answers on ";
    return {ErrorKind::kNotConnected, 0, head + path + ": " + cause(path, code)};
}

}  // namespace kelm::client
