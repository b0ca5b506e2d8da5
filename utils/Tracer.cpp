#include "utils/Tracer.h"

#include <list>

#include "utils/CsvObj.h"
#include "utils/CsvObjWriter.h"
#include "utils/Mutex.h"

namespace kelm {

namespace {

// Every writer that there ever was, stopped or not. Never destroyed: a thread may still be about to
// use one while static objects are going.
struct Writers {
    Mutex mutex;
    std::list<CsvObjWriter> all GUARDED_BY(mutex);
};

Writers& writers() {
    static Writers& obj = *new Writers;
    return obj;
}

struct EndAtExit {
    ~EndAtExit() { disableTracer(); }
};

}  // namespace

void enableTracer() {
    static const EndAtExit end;
    Writers& made = writers();
    MutexLock lock(made.mutex);
    if (globalCsvObjWriter.load() == nullptr) globalCsvObjWriter.store(&made.all.emplace_back());
}

void disableTracer() {
    if (CsvObjWriter* writer = globalCsvObjWriter.exchange(nullptr)) writer->stop();
}

bool isTracerOn() { return globalCsvObjWriter.load(std::memory_order_relaxed) != nullptr; }

uint64_t TraceBeginCsv(const char* name) { return isTracerOn() ? CsvObj::startCsvObject(name) : 0; }

void TraceEndCsv(uint64_t handle) {
    if (isTracerOn()) CsvObj::finishCsvObject(handle);
}

}  // namespace kelm
