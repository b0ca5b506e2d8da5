#pragma once

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>

#include "client/Client.h"
#include "client/SlotClaim.h"
#include "utils/Mutex.h"

namespace kelm::client {

// Lets the account that the service runs as at the segments of requests, whatever the umask and the
// groups of this process are.
//
// Threads: any. Owns: the callback. Locks: m_mutex, a leaf; not held while that runs.
class ServiceAccess {
 public:
    // Of a connected socket, and of the file that it was connected by.
    ServiceAccess(int socket, const std::string& path);

    // Before the request is sent; null: no slots. What cannot be given is told as a warning, each
    // text once: the service may have other rights, and tells if not.
    void letIn(const SlotClaim* claim) EXCLUDES(m_mutex);
    void onWarning(WarningCallback callback) EXCLUDES(m_mutex);

 private:
    void letIn(TensorSlot& slot);
    void letIn(const SharedSegment& segment);
    void warn(const std::string& text) EXCLUDES(m_mutex);

    // The service's account; -1 if it needs no rights, being root or this process's own.
    int64_t m_account = -1;
    gid_t m_group = static_cast<gid_t>(-1);  // of the socket's file; -1 if it cannot be told
    Mutex m_mutex;
    WarningCallback m_callback GUARDED_BY(m_mutex);
    std::set<std::string> m_told GUARDED_BY(m_mutex);
};

}  // namespace kelm::client
