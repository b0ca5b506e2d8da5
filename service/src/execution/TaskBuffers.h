#pragma once

#include "utils/FileRights.h"

namespace kelm {

struct KelmBuffer;
class KelmTaskParam;

// The buffers of a task on their way to and from an accelerator. The checks log what is wrong.
//
// Threads: any; a task has one owner at a time. Owns: nothing. Locks: none.
class TaskBuffers {
 public:
    static bool verifyBuffer(const KelmBuffer& buffer);
    // The error of the first one that a result could not be put into.
    static int verifyResultBuffers(KelmTaskParam& param);
    // The error of the first buffer whose memory the client has taken back while it was mapped.
    static int verifyMappings(KelmTaskParam& param);
    // With what the sender of the task may do to memory that the buffer names.
    static bool mapBuffer(const KelmTaskParam& param, KelmBuffer& buffer,
                          FileRights::Access wanted);
};

}  // namespace kelm
