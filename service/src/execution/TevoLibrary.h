#pragma once

#include "execution/TevoApi.h"
#include "protocol/src/KelmError.h"

namespace kelm {

// A function of the library's where there is no library: it only answers.
template <class Function>
struct TevoUnavailable;
template <class... Args>
struct TevoUnavailable<int (*)(Args...)> {
    static int call(Args...) { return KELM_ERROR_INVALID_DEVICE; }
};

#define KELM_TEVO_FUNCTIONS(X) \
    X(qxGlobalSetOption)       \
    X(qxPlatformInit)          \
    X(qxDeviceResetAll)        \
    X(qxDeviceOpenBooted)      \
    X(qxDeviceGetId)           \
    X(qxDeviceGetOption)       \
    X(qxDeviceClose)           \
    X(qxDeviceDestroy)         \
    X(qxDeviceHWReset)         \
    X(qxGraphCreate)           \
    X(qxGraphSetOption)        \
    X(qxGraphGetOption)        \
    X(qxGraphAllocate)         \
    X(qxGraphGetInfoSize)      \
    X(qxGraphQueueInference)   \
    X(qxGraphDestroy)          \
    X(qxFifoCreate)            \
    X(qxFifoAllocate)          \
    X(qxFifoGetOption)         \
    X(qxFifoWriteElem)         \
    X(qxFifoWriteIonElem)      \
    X(qxFifoReadElem)          \
    X(qxFifoReadIonElem)       \
    X(qxFifoDestroy)

// The functions of the accelerator library, found at run time; as made, those of no library.
struct TevoFunctions {
// NOLINTNEXTLINE(bugprone-macro-parentheses): the name of a member takes none
#define KELM_TEVO_MEMBER(name) decltype(&::name) name = &TevoUnavailable<decltype(&::name)>::call;
    KELM_TEVO_FUNCTIONS(KELM_TEVO_MEMBER)
#undef KELM_TEVO_MEMBER
};

// Loads the accelerator library at the first call that needs it, once for the process. A service on
// simulated devices never does.
//
// Threads: any.
class TevoLibrary {
 public:
    // Never fails: of a library that is missing or incomplete, which the first call has logged,
    // every function answers KELM_ERROR_INVALID_DEVICE. They stay for the rest of the process.
    static const TevoFunctions& functions();
    // Makes functions() give these; null restores the library. For tests, before any use.
    static void install(const TevoFunctions* functions);
};

}  // namespace kelm
