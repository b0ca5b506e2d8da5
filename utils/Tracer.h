#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "utils/FixedText.h"
#include "utils/NonCopyable.h"

namespace kelm {

// The tracer records how long named operations take, in ticks of the processor's counter, into
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

void TraceNameCsv(std::string_view line);

// Tells what an id in the names of operations stands for, as in ("graph,", id, ",", name): a line
// of the names file. A name is the last part, without line ends.
template <class... Parts>
void traceName(const Parts&... parts) {
    constexpr size_t kMaxLine = 639;
    if (isTracerOn()) TraceNameCsv(FixedText<kMaxLine>(parts...).view());
}

// One traced operation; the statics gather the open ones. Objects of finished operations are used
// again under the same id, so that tracing allocates nothing in the steady state.
//
// Threads: the statics any; an object belongs to its operation's begin, then to its end.
// Locks: one mutex for the statics, a leaf.
class CsvObj : public NonCopyable {
 public:
    // Starts the operation.
    CsvObj(uint64_t id, const char* name);

    // Starts another operation under the same id, of the calling thread.
    void renewOperation(const char* name);
    void finish();

    // Ticks of the processor's counter.
    uint64_t getStartTsc() const { return m_startTsc; }
    uint64_t getEndTsc() const { return m_endTsc; }  // 0 until finished
    const std::string& getPid() const { return m_pid; }
    const std::string& getTid() const { return m_tid; }
    const std::string& getOperation() const { return m_operation; }

    // Returns the handle of a new open operation.
    static uint64_t startCsvObject(const char* name);
    // Closes the operation and writes it out; an ERROR line if no such operation is open.
    static void finishCsvObject(uint64_t id);
    // The open operation of that id, or an empty pointer.
    static std::shared_ptr<CsvObj> fetchCsvObject(uint64_t id);

 private:
    struct Shared;
    static Shared& shared();

    const uint64_t m_id;
    uint64_t m_startTsc = 0;
    uint64_t m_endTsc = 0;
    std::string m_pid;
    std::string m_tid;
    std::string m_operation;
};

}  // namespace kelm
