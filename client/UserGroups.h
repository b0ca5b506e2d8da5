#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kelm::client {

// The groups of the user behind this process, for texts that tell why rights are missing.
struct UserGroups {
    static UserGroups ofThisProcess();
    // The name, or the number in its place.
    static std::string nameOf(gid_t group);

    // What makes the user a member of the group in this session.
    std::string adviceFor(gid_t group) const;
    bool hasInAccount(gid_t group) const;
    bool hasInSession(gid_t group) const;

    std::string user;            // the name, or the number in its place
    std::vector<gid_t> account;  // those that the next login will have
    std::vector<gid_t> session;  // those that count for this process
};

}  // namespace kelm::client
