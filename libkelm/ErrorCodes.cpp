#include "libkelm/ErrorCodes.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

#include "kelm/kelm.h"
#include "protocol/src/KelmError.h"

namespace kelm::lib {

namespace {

using client::ErrorKind;

struct Row {
    ErrorKind kind;
    int code;
    const char* name;
};

constexpr Row kRows[] = {
    {ErrorKind::kNone, KELM_SUCCESS, "KELM_SUCCESS"},
    {ErrorKind::kTimeout, KELM_TIMEOUT, "KELM_TIMEOUT"},
    {ErrorKind::kConnectionLost, KELM_CONNECTION_LOST, "KELM_CONNECTION_LOST"},
    {ErrorKind::kNotConnected, KELM_NOT_CONNECTED, "KELM_NOT_CONNECTED"},
    {ErrorKind::kCanceled, KELM_CANCELED, "KELM_CANCELED"},
    {ErrorKind::kSystem, KELM_SYSTEM_ERROR, "KELM_SYSTEM_ERROR"},
    {ErrorKind::kBusy, KELM_BUSY, "KELM_BUSY"},
    {ErrorKind::kExpired, KELM_EXPIRED, "KELM_EXPIRED"},
    {ErrorKind::kInvalidArgument, KELM_INVALID_ARGUMENT, "KELM_INVALID_ARGUMENT"},
    {ErrorKind::kOutOfMemory, KELM_OUT_OF_MEMORY, "KELM_OUT_OF_MEMORY"},
};

// No std::string: it must take a text where there is no memory left, and needs no destructor at the
// end of a thread.
thread_local char t_lastError[512] = "";

void keepText(std::string_view text) {
    const size_t count = std::min(text.size(), sizeof(t_lastError) - 1);
    std::copy_n(text.data(), count, t_lastError);
    t_lastError[count] = '\0';
}

}  // namespace

int codeOf(const client::Error& error) {
    if (error.kind() == ErrorKind::kService) return error.code();
    const auto* const row = std::find_if(std::begin(kRows), std::end(kRows), [&](const Row& each) {
        return each.kind == error.kind();
    });
    return row != std::end(kRows) ? row->code : KELM_SYSTEM_ERROR;
}

int fail(const client::Error& error) {
    if (error) keepText(error.text());
    return codeOf(error);
}

int fail(int code, const char* text) {
    keepText(text);
    return code;
}

const char* lastError() { return t_lastError; }

const char* nameOf(int code) {
    if (code < 0) return getErrorName(code);
    const auto* const row = std::find_if(std::begin(kRows), std::end(kRows),
                                         [&](const Row& each) { return each.code == code; });
    return row != std::end(kRows) ? row->name : "unknown";
}

}  // namespace kelm::lib
