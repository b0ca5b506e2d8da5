#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "utils/NonCopyable.h"

namespace kelm {

// One traced operation. Objects of finished operations are used again under the same id, so that
// tracing allocates nothing in the steady state.
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

    uint64_t getId() const { return m_id; }
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
    // As fetchCsvObject(), and the operation is open no more.
    static std::shared_ptr<CsvObj> takeCsvObject(uint64_t id);

    const uint64_t m_id;
    uint64_t m_startTsc = 0;
    uint64_t m_endTsc = 0;
    std::string m_pid;
    std::string m_tid;
    std::string m_operation;
};

}  // namespace kelm
