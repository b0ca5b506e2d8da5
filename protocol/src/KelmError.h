#pragma once

#include <cstdint>

namespace kelm {

// The one error enumeration: status of every response and result of device operations. It shares
// its number space with the small negative statuses of the accelerator library.
enum [[nodiscard]] KelmError : int32_t{
    KELM_OK = 0,
    KELM_ERROR_INVALID_DEVICE = -4,  // no such device; device reset failed
    KELM_ERROR_INVALID_PARAM = -5,   // bad argument, no manager for a subclass, nothing reserved
    KELM_ERROR_BUFFER_ALLOC_FAILED = -104,
    KELM_ERROR_TENSOR_DESCRIPTOR_MISMATCH = -105,
    KELM_ERROR_INVALID_CLIENT_NAME = -107,
    KELM_ERROR_INVALID_CLIENT = -109,
    KELM_ERROR_GRAPH_DIGEST_FAILED = -110,  // also: graph file not readable
    KELM_ERROR_INVALID_GRAPH = -111,
    KELM_ERROR_INVALID_GRAPH_FORMAT = -112,
    KELM_ERROR_INVALID_TASK = -114,
    KELM_ERROR_INVALID_INPUT_BUFFER = -115,
    KELM_ERROR_INVALID_OUTPUT_BUFFER = -116,
    KELM_ERROR_INVALID_AUX_BUFFER = -117,
    KELM_ERROR_MAP_INPUT_FAILED = -118,
    KELM_ERROR_MAP_OUTPUT_FAILED = -119,
    KELM_ERROR_MAP_AUX_FAILED = -120,
    KELM_ERROR_GRAPH_VERIFY_FAILED = -121,
    KELM_ERROR_NO_DEVICE_AVAILABLE = -122,
    KELM_ERROR_TOO_MANY_TASK = -124,
    KELM_ERROR_TOO_MANY_GRAPH = -125,
    KELM_ERROR_DEVICE_FAILED = -126,
    KELM_ERROR_DEVICE_ALREADY_OPEN = -127,
    KELM_ERROR_DEVICE_NOT_OPEN = -128,
    KELM_ERROR_GRAPH_NOT_ALLOCATED = -129,
    KELM_ERROR_OUT_OF_MEMORY = -130,
    KELM_ERROR_NO_RIGHTS = -131,  // the client does not own the graph or task
};

// The name of an error, "KELM_OK" and so on; "unknown" for a number without one.
const char* getErrorName(int32_t error);

}  // namespace kelm
