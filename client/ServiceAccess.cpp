#include "client/ServiceAccess.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "client/SharedSegment.h"
#include "utils/PeerCredentials.h"

namespace kelm::client {

// Asked once: a process that changes its user keeps the segments that it made before.
ServiceAccess::ServiceAccess(int socket, const std::string& path) {
    const auto service = PeerCredentials::ofSocket(socket);
    if (service && service->user != 0 && service->user != ::geteuid()) m_account = service->user;
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0) m_group = info.st_gid;
}

void ServiceAccess::letIn(const SlotClaim* claim) {
    if (m_account < 0 || claim == nullptr) return;
    for (const auto* slot : {&claim->input(), &claim->output(), &claim->aux()}) {
        if (*slot) letIn(**slot);
    }
}

// Once a slot. Marked afterwards: another thread that sends the same slot must find the rights
// given.
void ServiceAccess::letIn(TensorSlot& slot) {
    if (slot.m_letIn.load() == m_account) return;
    for (const auto* segment : {&slot.m_input, &slot.m_output, &slot.m_aux}) {
        if (*segment) letIn(**segment);
    }
    slot.m_letIn.store(m_account);
}

void ServiceAccess::letIn(const SharedSegment& segment) {
    const int error = segment.letUserIn(static_cast<uid_t>(m_account));
    if (error == 0) return;
    const std::string refused = "shared memory takes no access list for the service's account (" +
                                std::string(std::strerror(error)) + "): ";
    const std::string group = "group " + std::to_string(m_group);
    if (m_group == static_cast<gid_t>(-1))
        return warn(refused +
                    "the service may not open tensors; mount a tmpfs with access lists at "
                    "/dev/shm");
    warn(refused + "tensors are opened to the socket's " + group +
         ", all of whose members can "
         "read and write them");
    if (const int denied = segment.letGroupIn(m_group); denied != 0) {
        // What the kernel says to an id that a user namespace does not have.
        const char* advice = denied == EINVAL ? "map the service's account into this user namespace"
                                              : "make this user a member of it";
        warn(refused +
             "the service may not open tensors, since they cannot be given to the socket's " +
             group + " (" + std::strerror(denied) + "); " + advice);
    }
}

void ServiceAccess::onWarning(WarningCallback callback) {
    MutexLock lock(m_mutex);
    m_callback = std::move(callback);
}

void ServiceAccess::warn(const std::string& text) {
    WarningCallback callback;
    {
        MutexLock lock(m_mutex);
        if (!m_callback || !m_told.insert(text).second) return;
        callback = m_callback;
    }
    callback(text);
}

}  // namespace kelm::client
