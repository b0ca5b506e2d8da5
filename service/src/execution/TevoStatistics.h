#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "execution/TevoDevice.h"
#include "utils/StepTrace.h"
#include "utils/UniqueMalloc.h"

namespace kelm {

struct KelmBuffer;
class KelmGraph;
class KelmTaskParam;

// What a device tells with the results of one slave worker: auxiliary blocks for clients, and how
// long inferences take.
//
// Threads: the result thread, but for restartWarmup(). A graph is null, or alive during the call.
class TevoStatistics : public NonCopyable {
 public:
    explicit TevoStatistics(TevoDevice& device);

    // A graph leaves the device: the next results say little of the one that follows.
    void restartWarmup();
    // One more result has come.
    void countResult();
    // Fills the task's auxiliary buffer with the blocks that it asks for.
    int getAuxBufferData(qxGraphHandle_t* graphHandle, KelmTaskParam& param, KelmGraph* graph);
    // Tells the graph how long its last inference took, at most once an interval.
    int updateInferenceTimeInfo(qxGraphHandle_t* graphHandle, KelmGraph* graph);

 private:
    int getTimeTakenSize(qxGraphHandle_t* graphHandle, unsigned int& size);
    int getTimeTaken(qxGraphHandle_t* graphHandle, char* data, unsigned int& length);
    // Reads the array whole; `noMemory` is the error when there is none for it.
    int readTimeTaken(qxGraphHandle_t* graphHandle, UniqueMalloc<char>& data, unsigned int& length,
                      int noMemory);
    int copyTimeTaken(qxGraphHandle_t* graphHandle, KelmGraph* graph, KelmBuffer& buffer,
                      uint64_t& used);
    int copyThermalStats(KelmBuffer& buffer, uint64_t& used);
    int fillDebugInfo(qxGraphHandle_t* graphHandle, KelmBuffer& buffer, uint64_t used);
    // The last step of the array, in milliseconds. `length` in bytes, at least two floats.
    static float getInferenceTime(const char* data, unsigned int length);

    TevoDevice& m_device;
    const StepTrace m_trace;
    const int m_updateInferTimeInterval;  // milliseconds
    // Atomic: counts down on the result thread and is set anew on the input thread; a step that is
    // lost between the two costs one reading.
    std::atomic<int32_t> m_inferTimeWarmup;
    std::chrono::steady_clock::time_point m_lastInferTimeUpdate;
};

}  // namespace kelm
