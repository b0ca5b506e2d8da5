#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <new>
#include <system_error>

#include "client/Client.h"
#include "kelm/kelm.h"
#include "libkelm/ErrorCodes.h"
#include "libkelm/Session.h"

// What stands behind the handles of the interface.

// A child of fork() shares connections and names of shared memory with its parent, and must not end
// them: destructors that run there do nothing.
struct OfProcess {
    bool isHere() const { return ::getpid() == process; }
    const pid_t process = ::getpid();
};

struct kelm_client : OfProcess {
    std::shared_ptr<kelm::lib::Session> session;
};

struct kelm_graph : OfProcess {
    std::shared_ptr<kelm::lib::Session> session;
    std::shared_ptr<kelm::lib::GraphQueue> queue;
    kelm::client::Graph sizes;
};

struct kelm_pool : OfProcess {
    kelm::client::TensorPool tensors;
};

struct kelm_slot : OfProcess {
    kelm::client::TensorPool::Handle tensors;
};

namespace kelm::lib {

// Runs a function of the interface: no exception leaves it.
template <class Body>
int guarded(const Body& body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return fail(KELM_OUT_OF_MEMORY, client::Error::kNoMemory);
    } catch (const std::system_error& error) {
        const bool isThread = error.code() == std::errc::resource_unavailable_try_again;
        return fail(client::Error::fromErrno(isThread ? "starting a thread" : "a system call",
                                             error.code().value()));
    } catch (const std::exception& error) {
        return fail(KELM_SYSTEM_ERROR, error.what());
    }
}

constexpr size_t kLongestName = 31;  // of a client

inline int invalid(const char* text) { return fail(KELM_INVALID_ARGUMENT, text); }

inline const char* textOr(const char* text, const char* otherwise) {
    return text != nullptr ? text : otherwise;
}

constexpr const char* kBadDeadline =
    "a deadline is negative; give milliseconds, or 0 for the default";
constexpr const char* kBadStruct =
    "a struct is null, has no size, or asks for what this version of libkelm does not know; "
    "declare it with KELM_INIT and check kelm_version()";
constexpr const char* kWaitInCallback =
    "a callback must not wait for the service; make the call on another thread";
constexpr const char* kOfParent =
    "the handle is that of the parent process; a child of fork() must not use it";

inline client::Deadline deadlineOr(int32_t millis, client::Deadline otherwise) {
    return millis > 0 ? client::Deadline(millis) : otherwise;
}

}  // namespace kelm::lib
