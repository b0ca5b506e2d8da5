#include "utils/CsvObjWriter.h"

#include <utility>

#include "utils/FileHelper.h"
#include "utils/FixedText.h"
#include "utils/Log.h"
#include "utils/ThreadUtils.h"
#include "utils/Tracer.h"

namespace kelm {

namespace {

// Also the longest that an ended operation waits for the disk.
constexpr long kSaveIntervalMillisec = 2000;
constexpr size_t kFull = 0xFFFFF;
// What may gather while the disk is slow, and what a buffer may keep for itself afterwards.
constexpr size_t kMaxText = 128 * (kFull + 1);
constexpr size_t kMaxSpare = 4 * (kFull + 1);

// Four numbers of at most 20 digits, their commas, the end of the line.
using LineTail = FixedText<96>;

}  // namespace

std::atomic<CsvObjWriter*> globalCsvObjWriter{nullptr};

CsvObjWriter::Output::Output(std::string path, std::string_view header)
    : m_filling(header), m_file(std::move(path)) {}

bool CsvObjWriter::Output::append(std::string_view head, std::string_view tail) {
    MutexLock lock(m_mutex);
    const size_t before = m_filling.size();
    if (before + head.size() + tail.size() > kMaxText) {
        ++m_dropped;
        return false;
    }
    m_filling.append(head).append(tail);
    // At the crossing only: one wake-up for each full buffer.
    return before <= kFull && m_filling.size() > kFull;
}

void CsvObjWriter::Output::save() {
    uint64_t dropped = 0;
    {
        MutexLock lock(m_mutex);
        m_filling.swap(m_saving);  // callers fill the other one while the disk is slow
        dropped = std::exchange(m_dropped, 0);
    }
    if (!m_saving.empty()) (void)m_file.append(m_saving);  // it logs a failure; the text is lost
    if (dropped != 0) {
        LOG_ERROR("Error: %lu lines for %s came faster than it can be written", dropped,
                  m_file.getPath());
    }
    m_saving.clear();
    if (m_saving.capacity() > kMaxSpare) m_saving.shrink_to_fit();
}

CsvObjWriter::CsvObjWriter()
    : CsvObjWriter(FileHelper::getTempDirectoryPath() + "/kelm-" +
                       std::to_string(ThreadUtils::getProcessId()),
                   "-hostname-" + ThreadUtils::getHostname() + ".csv") {}

CsvObjWriter::CsvObjWriter(const std::string& pathBegin, const std::string& pathEnd)
    : m_frames(pathBegin + "-frames" + pathEnd, "name,start_tsc.RDTSC,end_tsc\n"),
      m_tasks(pathBegin + "-tasks" + pathEnd, "name,start_tsc.RDTSC,end_tsc,pid,tid\n"),
      m_names(pathBegin + "-names" + pathEnd, "kind,id,of\n"),
      m_thread([this] { WriteRoutine(); }) {}

CsvObjWriter::~CsvObjWriter() { stop(); }

// The last save comes after the thread has ended, since only one may save at a time.
void CsvObjWriter::stop() {
    if (m_stop.exchange(true)) return;
    m_semaphore.post();
    m_thread.join();
    save();
}

// The numbers are formatted before the mutex of the output is taken.
void CsvObjWriter::writeFrame(const CsvObj& obj) {
    const LineTail tail(",", obj.getStartTsc(), ",", obj.getEndTsc(), "\n");
    if (m_frames.append(obj.getOperation(), tail.view())) m_semaphore.post();
}

void CsvObjWriter::writeTask(const CsvObj& obj) {
    const LineTail tail(",", obj.getStartTsc(), ",", obj.getEndTsc(), ",", obj.getPid(), ",",
                        obj.getTid(), "\n");
    if (m_tasks.append(obj.getOperation(), tail.view())) m_semaphore.post();
}

void CsvObjWriter::writeName(std::string_view line) {
    if (m_names.append(line, "\n")) m_semaphore.post();
}

void CsvObjWriter::WriteRoutine() {
    ThreadUtils::setName("KelmTracer");
    while (!m_stop) {
        (void)m_semaphore.waitFor(kSaveIntervalMillisec);  // either way it is time to save
        save();
    }
}

void CsvObjWriter::save() {
    m_frames.save();
    m_tasks.save();
    m_names.save();
}

}  // namespace kelm
