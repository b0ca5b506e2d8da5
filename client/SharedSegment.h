#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <span>
#include <string>

#include "client/Error.h"

namespace kelm::client {

// One shared memory object that this process made, for itself and for its user alone until others
// are let in.
//
// Threads: any. Owns: the mapping and the name.
class SharedSegment {
 public:
    // `role` names the buffer in an error, which is kSystem.
    static Result<std::unique_ptr<SharedSegment>> create(size_t size, const std::string& role);
    // The service opens the memory by its name, perhaps as late as the result comes: not before the
    // task has ended.
    ~SharedSegment();
    SharedSegment(const SharedSegment&) = delete;
    SharedSegment& operator=(const SharedSegment&) = delete;

    std::span<std::byte> bytes() const { return {static_cast<std::byte*>(m_data), m_size}; }
    const std::string& name() const { return m_name; }

    // Let a user in to read and write, or all members of a group, which takes the place of whoever
    // was let in before. The error is errno's, 0 for none.
    int letUserIn(uid_t user) const;
    int letGroupIn(gid_t group) const;

 private:
    SharedSegment(std::string name, size_t size) : m_name(std::move(name)), m_size(size) {}

    const std::string m_name;
    const size_t m_size;
    void* m_data = nullptr;
};

}  // namespace kelm::client
