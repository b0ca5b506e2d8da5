#pragma once

#include <cstdint>

#include "utils/FixedText.h"

namespace kelm {

// The tracer records how long named operations take, in ticks of the processor's counter, into two
// files of comma-separated values. It is off until enableTracer(), and then costs one null test a
// call. Every operation that is begun must be ended once, on any thread.

// Once, after the log is built and before the threads that trace: the tracer then ends in between
// at the end of the process.
void enableTracer();
// Switches the tracer off and saves everything that was ended before. Operations that are still
// open, and those of threads that have not seen it yet, are lost.
void disableTracer();
bool isTracerOn();

// Returns a handle for the end; 0, which is also a good handle, when the tracer is off.
uint64_t TraceBeginCsv(const char* name);
void TraceEndCsv(uint64_t handle);

// TraceBeginCsv() for a name made of texts and integers, which is put together only if needed.
template <class... Parts>
uint64_t traceBegin(const Parts&... parts) {
    constexpr size_t kMaxName = 95;
    return isTracerOn() ? TraceBeginCsv(FixedText<kMaxName>(parts...).c_str()) : 0;
}

}  // namespace kelm
