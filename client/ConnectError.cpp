#include "client/ConnectError.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "utils/StringHelper.h"

namespace kelm::client {

namespace {

constexpr size_t kMaxPathLength = sizeof(sockaddr_un::sun_path) - 1;
constexpr gid_t kRootGroup = 0;

using NameBuffer = std::array<char, 16384>;  // of what the system's lists say about one name

// The name, or the number in its place.
std::string groupName(gid_t group) {
    NameBuffer buffer;
    struct group entry {};
    struct group* found = nullptr;
    (void)::getgrgid_r(group, &entry, buffer.data(), buffer.size(), &found);
    return found != nullptr ? found->gr_name : std::to_string(group);
}

struct User {
    std::string name;
    std::vector<gid_t> listed;  // the groups that the next login will have
};

User thisUser() {
    NameBuffer buffer;
    passwd entry{};
    passwd* found = nullptr;
    (void)::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found);
    if (found == nullptr) return {std::to_string(::geteuid()), {}};
    User user{found->pw_name, std::vector<gid_t>(1024)};
    int count = static_cast<int>(user.listed.size());
    if (::getgrouplist(found->pw_name, found->pw_gid, user.listed.data(), &count) < 0) count = 0;
    user.listed.resize(static_cast<size_t>(count));
    return user;
}

bool contains(const std::vector<gid_t>& groups, gid_t group) {
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

// Those that count for this process, which may be fewer than those of its user.
std::vector<gid_t> ownGroups() {
    std::vector<gid_t> groups(static_cast<size_t>(std::max(::getgroups(0, nullptr), 0)));
    if (::getgroups(static_cast<int>(groups.size()), groups.data()) < 0) groups.clear();
    if (!contains(groups, ::getegid())) groups.push_back(::getegid());
    return groups;
}

// What lets the user in, where the group of the socket decides.
std::string remedy(const struct stat& socket, const std::vector<gid_t>& groups, const User& user) {
    constexpr mode_t kGroupMay = S_IWGRP;
    const std::string group = groupName(socket.st_gid);
    if ((socket.st_mode & kGroupMay) == 0 || contains(groups, socket.st_gid)) {
        return StringHelper::format(
            "the socket's mode %04o keeps the group out; start the service "
            "again, which sets the mode",
            socket.st_mode & 07777u);
    }
    if (contains(user.listed, socket.st_gid)) {
        return "the user has joined the group since; log in again, or run: newgrp " + group;
    }
    if (socket.st_gid == kRootGroup) {
        return "set security_settings.user_group in the configuration of the service to a group of "
               "the user's, and start the service again";
    }
    return "run: sudo usermod -aG " + group + " " + user.name + ", then log in again";
}

std::string denied(const std::string& path) {
    const User user = thisUser();
    struct stat socket {};
    if (::stat(path.c_str(), &socket) != 0) {
        return "user " + user.name +
               " may not enter its directory; set KELM_RUN_DIR to another "
               "one, here and for the service, or give the user rights to it";
    }
    const std::vector<gid_t> groups = ownGroups();
    std::string names;
    for (const gid_t group : groups) names += (names.empty() ? "" : ", ") + groupName(group);
    return "it is for group " + groupName(socket.st_gid) + ", and user " + user.name +
           " runs with " + names + "; " + remedy(socket, groups, user);
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
            return std::strerror(code);
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
