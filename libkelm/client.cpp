// The connection part of the C interface.
#include <cerrno>
#include <cstring>

#include "kelm/kelm.h"
#include "libkelm/Handles.h"
#include "libkelm/Structs.h"

using namespace kelm::lib;

namespace {

std::string programName() {
    const std::string name(program_invocation_short_name);
    return name.empty() ? "unnamed" : name.substr(0, kLongestName);
}

}  // namespace

uint32_t kelm_version(void) {
    return KELM_VERSION_MAJOR << 16 | KELM_VERSION_MINOR << 8 | KELM_VERSION_PATCH;
}

const char* kelm_version_text(void) { return KELM_VERSION_TEXT; }

const char* kelm_error_name(int error) { return nameOf(error); }

const char* kelm_last_error(void) { return lastError(); }

int kelm_connect(const kelm_client_options* options, kelm_client** client) {
    return guarded([&] {
        constexpr uint32_t kKnownFlags = KELM_CLIENT_RECONNECT | KELM_CLIENT_DISPATCH;
        kelm_client_options known{};
        if (client == nullptr) return invalid("there is no place for the client's handle");
        if (options != nullptr && !readStruct(options, known)) return invalid(kBadStruct);
        if (known.deadline_ms < 0) return invalid(kBadDeadline);
        if ((known.flags & ~kKnownFlags) != 0) {
            return invalid("this version of libkelm does not know a flag of the client");
        }
        SessionOptions wanted;
        wanted.socketPath = textOr(known.socket_path, "");
        wanted.name = known.name != nullptr ? known.name : programName();
        wanted.deadline = deadlineOr(known.deadline_ms, kelm::client::kDefaultDeadline);
        wanted.reconnects = (known.flags & KELM_CLIENT_RECONNECT) != 0;
        wanted.dispatches = (known.flags & KELM_CLIENT_DISPATCH) != 0;
        wanted.onWarning = known.on_warning;
        wanted.onConnection = known.on_connection;
        wanted.user = known.user;
        if (wanted.name.empty() || wanted.name.size() > kLongestName) {
            return invalid("the client's name has no or more than 31 bytes");
        }
        auto session = Session::connect(wanted);
        if (!session) return fail(session.error());
        *client = new kelm_client{{}, std::move(session).value()};
        return int{KELM_SUCCESS};
    });
}

int kelm_close(kelm_client* client) {
    return guarded([&] {
        if (client == nullptr) return int{KELM_SUCCESS};
        if (Callbacks::isInside()) return invalid(kWaitInCallback);
        if (!client->isHere()) return invalid(kOfParent);
        const std::unique_ptr<kelm_client> owned(client);
        owned->session->close();
        return int{KELM_SUCCESS};
    });
}

int kelm_is_connected(const kelm_client* client) {
    return client != nullptr && client->session->isConnected() ? 1 : 0;
}

uint64_t kelm_client_id(const kelm_client* client) {
    return client != nullptr ? client->session->clientId() : 0;
}

int kelm_fd(const kelm_client* client) {
    return client != nullptr ? client->session->callbacks().fd() : -1;
}

int kelm_dispatch(kelm_client* client, int timeout_ms) {
    int count = -1;
    const int error = guarded([&] {
        if (client == nullptr || kelm_fd(client) < 0) {
            return invalid("the client was not opened with KELM_CLIENT_DISPATCH");
        }
        count = client->session->callbacks().dispatch(timeout_ms);
        if (count < 0 && errno != EINTR) return fail(kelm::client::Error::fromErrno("waiting"));
        if (count < 0) count = 0;  // a signal is the caller's affair
        return int{KELM_SUCCESS};
    });
    return error == KELM_SUCCESS ? count : -1;
}

int kelm_device_reset(kelm_client* client, uint32_t device, int32_t deadline_ms) {
    return guarded([&] {
        if (client == nullptr) return invalid("there is no client");
        if (deadline_ms < 0) return invalid(kBadDeadline);
        if (Callbacks::isInside()) return invalid(kWaitInCallback);
        const auto connection = client->session->client();
        if (!connection) return fail(kelm::client::Error::notConnected());
        const auto deadline = deadlineOr(deadline_ms, kelm::client::kGraphDeadline);
        return fail(device == KELM_ALL_DEVICES ? connection->resetAllDevices(deadline)
                                               : connection->resetDevice(device, deadline));
    });
}
