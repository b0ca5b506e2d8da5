#include "client/Error.h"

#include <cerrno>
#include <optional>

#include "client/SystemError.h"
#include "protocol/src/KelmError.h"

namespace kelm::client {

namespace {

// What a user can do about it, beside the name of the code. A row for one kind of call stands
// before the one for all others.
struct AdviceRow {
    int32_t code;
    const char* advice;
    std::optional<CallKind> call = std::nullopt;
    const char* details = "";
};

constexpr const char* kRights =
    "; its memory must belong to the user who asks, let the service's account read and write it "
    "(pools of this library see to that), be as large as the request says and, if it has a name, "
    "lie in the /dev/shm that the service sees";

constexpr AdviceRow kAdvice[] = {
    {KELM_ERROR_INVALID_DEVICE,
     "no such device, or its reset failed or waits behind one that hangs; ask for the device list "
     "again, and see the log of the service"},
    {KELM_ERROR_INVALID_PARAM,
     "the service offers no devices for this subclass, tag or stream id; check them against its "
     "configuration",
     CallKind::kCreateGraph},
    {KELM_ERROR_INVALID_PARAM,
     "the device refused the task; check the sizes of its buffers against those of the graph, and "
     "the log of the service",
     CallKind::kInfer},
    {KELM_ERROR_INVALID_PARAM, "the service does not accept a value of the request; see its log"},
    {KELM_ERROR_BUFFER_ALLOC_FAILED, "the service could not map a buffer; check its kind and size"},
    {KELM_ERROR_TENSOR_DESCRIPTOR_MISMATCH,
     "the graph does not fit the device library; compile it for "
     "the version that is installed"},
    {KELM_ERROR_INVALID_CLIENT_NAME, "register with a name"},
    {KELM_ERROR_INVALID_CLIENT,
     "the service does not know this client; connect and register again"},
    {KELM_ERROR_GRAPH_DIGEST_FAILED,
     "the service could not read the graph; check that the file is regular and readable for it"},
    {KELM_ERROR_INVALID_GRAPH, "no such graph; create it first, and use it before it is destroyed"},
    {KELM_ERROR_INVALID_GRAPH_FORMAT,
     "the file is no compiled graph for this device; compile "
     "one for it"},
    {KELM_ERROR_INVALID_TASK, "no such task; it may have ended: ask for those that run"},
    {KELM_ERROR_INVALID_INPUT_BUFFER, "check kind and size of the input buffer"},
    {KELM_ERROR_INVALID_OUTPUT_BUFFER, "check kind and size of the output buffer"},
    {KELM_ERROR_INVALID_AUX_BUFFER, "check kind and size of the auxiliary buffer"},
    {KELM_ERROR_MAP_INPUT_FAILED, "the service could not open or map the input buffer",
     std::nullopt, kRights},
    {KELM_ERROR_MAP_OUTPUT_FAILED, "the service could not open or map the output buffer",
     std::nullopt, kRights},
    {KELM_ERROR_MAP_AUX_FAILED, "the service could not open or map the auxiliary buffer",
     std::nullopt, kRights},
    {KELM_ERROR_GRAPH_VERIFY_FAILED, "the graph has no data; give a file with some"},
    {KELM_ERROR_NO_DEVICE_AVAILABLE, "no device can take the graph; plug one in or try later"},
    {KELM_ERROR_TOO_MANY_TASK, "too many tasks wait; take some results before submitting more"},
    {KELM_ERROR_TOO_MANY_GRAPH, "too many graphs exist; destroy one first"},
    {KELM_ERROR_DEVICE_FAILED, "the device failed; try again, another one may take over"},
    {KELM_ERROR_DEVICE_ALREADY_OPEN,
     "the device is open already; end the program that uses it beside the service"},
    {KELM_ERROR_DEVICE_NOT_OPEN, "the device is closed; try again later"},
    {KELM_ERROR_GRAPH_NOT_ALLOCATED, "the device lost the graph; try again"},
    {KELM_ERROR_OUT_OF_MEMORY,
     "the service is out of memory or threads; try later, destroy graphs, or give it more: see its "
     "log and the limits of its unit or container"},
    {KELM_ERROR_NO_RIGHTS,
     "the graph or task belongs to another client; use one of this "
     "client's"},
};

// Codes without a row are those of devices and libraries: only the service's log knows more.
std::string findAdvice(int32_t code, CallKind call) {
    for (const AdviceRow& row : kAdvice) {
        if (row.code == code && row.call.value_or(call) == call)
            return std::string(row.advice) + row.details;
    }
    return "see the log of the service";
}

}  // namespace

Error Error::fromStatus(int32_t status, CallKind call) {
    if (status == KELM_OK) return {};
    const std::string head =
        std::string(getErrorName(status)) + " (" + std::to_string(status) + ")";
    return {ErrorKind::kService, status, head + ": " + findAdvice(status, call)};
}

Error Error::timeout(const std::string& what) {
    return {ErrorKind::kTimeout, 0,
            what + " got no answer before its deadline; give it more time or check the service"};
}

Error Error::connectionLost() {
    return {ErrorKind::kConnectionLost, 0,
            "the connection to the service is lost; connect and register again"};
}

Error Error::notConnected() {
    return {ErrorKind::kNotConnected, 0,
            "not connected to the service; connect and register first"};
}

Error Error::canceled() { return {ErrorKind::kCanceled, 0, "the task was canceled before it ran"}; }

Error Error::fromErrno(const std::string& what) { return fromErrno(what, errno); }

Error Error::fromErrno(const std::string& what, int number) {
    return {ErrorKind::kSystem, 0, what + " failed: " + describeSystemError(number)};
}

std::string Error::name() const {
    switch (m_kind) {
        case ErrorKind::kNone:
            return "KELM_OK";
        case ErrorKind::kService:
            return getErrorName(m_code);
        case ErrorKind::kTimeout:
            return "timeout";
        case ErrorKind::kConnectionLost:
            return "connection lost";
        case ErrorKind::kNotConnected:
            return "not connected";
        case ErrorKind::kCanceled:
            return "canceled";
        case ErrorKind::kSystem:
            return "system error";
        case ErrorKind::kBusy:
            return "busy";
        case ErrorKind::kExpired:
            return "expired";
        case ErrorKind::kInvalidArgument:
            return "invalid argument";
        case ErrorKind::kOutOfMemory:
            return "out of memory";
    }
    return "unknown";
}

}  // namespace kelm::client
