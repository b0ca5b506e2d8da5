#pragma once

#include "protocol/src/KelmError.h"
#include "utils/Singleton.h"

namespace kelm {

struct KelmBuffer;

// Turns the description of a tensor buffer that came by descriptor into memory, and back.
//
// Threads: any.
class BufferAllocator : public Singleton<BufferAllocator> {
 public:
    // Gives back what the buffer holds: its descriptor is closed and cleared. Null is
    // KELM_ERROR_INVALID_PARAM.
    KelmError free(KelmBuffer* buffer);
};

}  // namespace kelm
