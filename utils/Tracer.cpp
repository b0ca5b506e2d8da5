#include "utils/Tracer.h"

#include <list>
#include <utility>
#include <vector>

#include "utils/CsvObjWriter.h"
#include "utils/Log.h"
#include "utils/Mutex.h"
#include "utils/ThreadUtils.h"

namespace kelm {

namespace {

// Every writer that there ever was, stopped or not. Never destroyed: while static objects are
// destroyed at the end of the process, a thread may still be about to use one.
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

// Made after the log, to which the writers' failures go, the static object ends before it.
void enableTracer() {
    static const EndAtExit end;
    Writers& made = writers();
    MutexLock lock(made.mutex);
    if (globalCsvObjWriter.load() == nullptr) globalCsvObjWriter.store(&made.all.emplace_back());
}

// The pointer first: threads that read it later write nothing, and those that have read it before
// meet a writer that is stopped, not destroyed.
void disableTracer() {
    if (CsvObjWriter* writer = globalCsvObjWriter.exchange(nullptr)) writer->stop();
}

bool isTracerOn() { return globalCsvObjWriter.load(std::memory_order_relaxed) != nullptr; }

uint64_t TraceBeginCsv(const char* name) { return isTracerOn() ? CsvObj::startCsvObject(name) : 0; }

void TraceEndCsv(uint64_t handle) {
    if (isTracerOn()) CsvObj::finishCsvObject(handle);
}

void TraceNameCsv(std::string_view line) {
    if (CsvObjWriter* writer = globalCsvObjWriter.load()) writer->writeName(line);
}

struct CsvObj::Shared {
    const std::string pid = std::to_string(ThreadUtils::getProcessId());  // asking is a system call
    Mutex mutex;
    // By id, since ids are dense; a null pointer is an operation that is not open.
    std::vector<std::shared_ptr<CsvObj>> csvRecords GUARDED_BY(mutex);
    std::vector<std::shared_ptr<CsvObj>> csvPool GUARDED_BY(mutex);  // finished, to be used again
};

// Never destroyed, as the writers.
CsvObj::Shared& CsvObj::shared() {
    static Shared& obj = *new Shared;
    return obj;
}

CsvObj::CsvObj(uint64_t id, const char* name) : m_id(id) { renewOperation(name); }

// The start is taken last, so that the preparation does not count.
void CsvObj::renewOperation(const char* name) {
    m_pid = shared().pid;
    m_tid = std::to_string(ThreadUtils::getThreadId());
    m_operation = name != nullptr ? name : "";
    m_endTsc = 0;
    m_startTsc = ThreadUtils::getRdtsc();
}

void CsvObj::finish() { m_endTsc = ThreadUtils::getRdtsc(); }

uint64_t CsvObj::startCsvObject(const char* name) {
    Shared& all = shared();
    MutexLock lock(all.mutex);
    if (all.csvPool.empty()) {
        const uint64_t id = all.csvRecords.size();
        all.csvRecords.push_back(std::make_shared<CsvObj>(id, name));
        return id;
    }
    std::shared_ptr<CsvObj> obj = std::move(all.csvPool.back());
    all.csvPool.pop_back();
    // The name's memory is used again, too: in the steady state no string grows.
    obj->renewOperation(name);
    const uint64_t id = obj->m_id;
    all.csvRecords[id] = std::move(obj);
    return id;
}

void CsvObj::finishCsvObject(uint64_t id) {
    Shared& all = shared();
    std::shared_ptr<CsvObj> obj;
    {
        // Taken out, not looked at: of two that end the same operation only one gets the object.
        MutexLock lock(all.mutex);
        if (id < all.csvRecords.size()) obj = std::move(all.csvRecords[id]);
    }
    if (!obj) {
        LOG_ERROR("Error: cannot find csvObj with id(%lu)", id);
        return;
    }
    obj->finish();
    if (CsvObjWriter* writer = globalCsvObjWriter.load()) {
        writer->writeFrame(*obj);
        writer->writeTask(*obj);
    }
    MutexLock lock(all.mutex);
    all.csvPool.push_back(std::move(obj));
}

std::shared_ptr<CsvObj> CsvObj::fetchCsvObject(uint64_t id) {
    Shared& all = shared();
    MutexLock lock(all.mutex);
    return id < all.csvRecords.size() ? all.csvRecords[id] : nullptr;
}

}  // namespace kelm
