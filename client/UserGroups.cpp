#include "client/UserGroups.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace kelm::client {

namespace {

constexpr gid_t kRootGroup = 0;

using NameBuffer = std::array<char, 16384>;  // of what the system's lists say about one name

bool contains(const std::vector<gid_t>& groups, gid_t group) {
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

std::vector<gid_t> sessionGroups() {
    std::vector<gid_t> groups(static_cast<size_t>(std::max(::getgroups(0, nullptr), 0)));
    if (::getgroups(static_cast<int>(groups.size()), groups.data()) < 0) groups.clear();
    if (!contains(groups, ::getegid())) groups.push_back(::getegid());
    return groups;
}

}  // namespace

std::string UserGroups::nameOf(gid_t group) {
    NameBuffer buffer;
    struct group entry {};
    struct group* found = nullptr;
    (void)::getgrgid_r(group, &entry, buffer.data(), buffer.size(), &found);
    return found != nullptr ? found->gr_name : std::to_string(group);
}

UserGroups UserGroups::ofThisProcess() {
    NameBuffer buffer;
    passwd entry{};
    passwd* found = nullptr;
    (void)::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found);
    if (found == nullptr) return {std::to_string(::geteuid()), {}, sessionGroups()};
    UserGroups groups{found->pw_name, std::vector<gid_t>(1024), sessionGroups()};
    int count = static_cast<int>(groups.account.size());
    if (::getgrouplist(found->pw_name, found->pw_gid, groups.account.data(), &count) < 0) count = 0;
    groups.account.resize(static_cast<size_t>(count));
    return groups;
}

std::string UserGroups::adviceFor(gid_t group) const {
    const std::string name = nameOf(group);
    if (hasInAccount(group)) {
        return "the user has joined the group since; log in again, or run: newgrp " + name;
    }
    if (group == kRootGroup) {
        return "set security_settings.user_group in the configuration of the service to a group of "
               "the user's, and start the service again";
    }
    return "run: sudo usermod -aG " + name + " " + user + ", then log in again";
}

bool UserGroups::hasInAccount(gid_t group) const { return contains(account, group); }

bool UserGroups::hasInSession(gid_t group) const { return contains(session, group); }

}  // namespace kelm::client
