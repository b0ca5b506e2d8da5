#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "utils/CsvOutput.h"
#include "utils/NonCopyable.h"
#include "utils/Semaphore.h"

namespace kelm {

class CsvObj;

// Writes finished operations to two files in the directory for temporary files, which belong to
// this process: the frames file has the name and the ticks of an operation, the tasks file also the
// process and the thread.
//
// Threads: any may write; all work on files is on the writer's own thread, within two seconds.
class CsvObjWriter : public NonCopyable {
 public:
    CsvObjWriter();
    ~CsvObjWriter();

    void writeFrame(const CsvObj& obj);
    void writeTask(const CsvObj& obj);

    // Ends the thread and saves what it has left behind. What comes later is lost.
    void stop();

 private:
    CsvObjWriter(const std::string& pathBegin, const std::string& pathEnd);
    void WriteRoutine();
    void save();

    // Atomic: the thread only looks whether it is set.
    std::atomic<bool> m_stop{false};
    Semaphore m_semaphore{0, 0};  // wakes the thread before its time
    CsvOutput m_frames;
    CsvOutput m_tasks;
    std::thread m_thread;  // last: it uses all of the above
};

// The tracer's switch: a null pointer is off. Atomic: every thread reads it at every operation. The
// writer behind it is never destroyed, so a pointer that was read stays good.
extern std::atomic<CsvObjWriter*> globalCsvObjWriter;

}  // namespace kelm
