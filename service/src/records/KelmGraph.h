#pragma once

#include <cstdint>
#include <string>

#include "records/GraphContent.h"
#include "records/GraphDemand.h"
#include "records/GraphResidency.h"
#include "records/GraphUsers.h"
#include "utils/UniqueMalloc.h"

namespace kelm {

// One graph known to the service: what it is, which clients use it, which devices hold it, and the
// figures from which the schedulers estimate its demand; each of these is a class of its own, with
// a mutex of its own, and this one joins them.
//
// Created and deleted by the graph manager only; workers, schedulers and the task manager hold
// plain pointers until they have confirmed the graph's departure.
//
// Threads: any. Locks: those of its parts, never two at a time.
class KelmGraph final : public GraphContent,
                        public GraphUsers,
                        public GraphResidency,
                        public GraphDemand {
 public:
    // A null name means "unnamed".
    KelmGraph(uint64_t id, uint64_t clientId, const char* name, int32_t expectDeviceNumber);
    // Reads the whole file; without one, data and hash stay empty.
    KelmGraph(uint64_t id, uint64_t clientId, const char* path, const char* name,
              int32_t expectDeviceNumber);
    // Copies the buffer.
    KelmGraph(uint64_t id, uint64_t clientId, const char* buffer, uint64_t size, const char* name,
              int32_t expectDeviceNumber);
    // Takes over bytes that were read from `path`, with their digest.
    KelmGraph(uint64_t id, uint64_t clientId, const char* path, UniqueMalloc<char> data,
              uint64_t size, std::string hash, const char* name, int32_t expectDeviceNumber);

    // How many devices the graph needs right now, by its rates, backlog and inference time; 0.5
    // before the first measured inference.
    float getDevReqNum();

 private:
    // Until a device has told what the graph takes there.
    void estimateMemory();
};

}  // namespace kelm
