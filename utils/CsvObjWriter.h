#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <thread>

#include "utils/AppendOnlyFile.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/Semaphore.h"

namespace kelm {

class CsvObj;

// Writes finished operations to files in the directory for temporary files, which belong to this
// process: the frames file has the name and the ticks of an operation, the tasks file also the
// process and the thread. The names file tells what the ids in the names of operations stand for.
//
// Threads: any may write; all work on files is on the writer's own thread, within two seconds.
class CsvObjWriter : public NonCopyable {
 public:
    // One of the files behind two buffers: callers fill one while the other is saved. What cannot
    // be saved is dropped, so a full or slow disk costs rows and neither time nor memory.
    //
    // Threads: any for append(), one at a time for save(). Locks: m_mutex is a leaf.
    class Output : public NonCopyable {
     public:
        Output(std::string path, std::string_view header);

        // Adds a line given as two pieces. True when that filled the buffer: save it soon.
        bool append(std::string_view head, std::string_view tail) EXCLUDES(m_mutex);
        // Writes what has gathered to the file.
        void save() EXCLUDES(m_mutex);

     private:
        Mutex m_mutex;
        std::string m_filling GUARDED_BY(m_mutex);
        uint64_t m_dropped GUARDED_BY(m_mutex) = 0;  // lines since the last save
        // The saving thread's. Empty between two saves.
        std::string m_saving;
        AppendOnlyFile m_file;
    };

    CsvObjWriter();
    ~CsvObjWriter();

    void writeFrame(const CsvObj& obj);
    void writeTask(const CsvObj& obj);
    void writeName(std::string_view line);

    // Ends the thread and saves what it has left behind. What comes later is lost.
    void stop();

 private:
    CsvObjWriter(const std::string& pathBegin, const std::string& pathEnd);
    void WriteRoutine();
    void save();

    // Atomic: the thread only looks whether it is set.
    std::atomic<bool> m_stop{false};
    Semaphore m_semaphore{0, 0};  // wakes the thread before its time
    Output m_frames;
    Output m_tasks;
    Output m_names;
    std::thread m_thread;  // last: it uses all of the above
};

// The tracer's switch: a null pointer is off. Atomic: every thread reads it at every operation. The
// writer behind it is never destroyed, so a pointer that was read stays good.
extern std::atomic<CsvObjWriter*> globalCsvObjWriter;

}  // namespace kelm
