#include "utils/CsvObjWriter.h"

#include "utils/CsvObj.h"
#include "utils/FileHelper.h"
#include "utils/FixedText.h"
#include "utils/ThreadUtils.h"

namespace kelm {

namespace {

constexpr long kSaveIntervalMillisec = 2000;

// Four numbers of at most 20 digits, their commas, the end of the line.
using LineTail = FixedText<96>;

}  // namespace

std::atomic<CsvObjWriter*> globalCsvObjWriter{nullptr};

CsvObjWriter::CsvObjWriter()
    : CsvObjWriter(FileHelper::getTempDirectoryPath() + "/kelm-" +
                       std::to_string(ThreadUtils::getProcessId()),
                   "-hostname-" + ThreadUtils::getHostname() + ".csv") {}

CsvObjWriter::CsvObjWriter(const std::string& pathBegin, const std::string& pathEnd)
    : m_frames(pathBegin + "-frames" + pathEnd, "name,start_tsc.RDTSC,end_tsc\n"),
      m_tasks(pathBegin + "-tasks" + pathEnd, "name,start_tsc.RDTSC,end_tsc,pid,tid\n"),
      m_thread([this] { WriteRoutine(); }) {}

CsvObjWriter::~CsvObjWriter() { stop(); }

void CsvObjWriter::stop() {
    if (m_stop.exchange(true)) return;
    m_semaphore.post();
    m_thread.join();
    save();
}

void CsvObjWriter::writeFrame(const CsvObj& obj) {
    const LineTail tail(",", obj.getStartTsc(), ",", obj.getEndTsc(), "\n");
    if (m_frames.append(obj.getOperation(), tail.view())) m_semaphore.post();
}

void CsvObjWriter::writeTask(const CsvObj& obj) {
    const LineTail tail(",", obj.getStartTsc(), ",", obj.getEndTsc(), ",", obj.getPid(), ",",
                        obj.getTid(), "\n");
    if (m_tasks.append(obj.getOperation(), tail.view())) m_semaphore.post();
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
}

}  // namespace kelm
