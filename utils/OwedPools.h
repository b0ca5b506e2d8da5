#pragma once

#include "utils/ErrorHelper.h"
#include "utils/NonCopyable.h"

namespace kelm {

class SerialPool;

// The pools that the calling thread owes a turn: it has filled them while they were idle, and
// either runs their tasks itself at its next settle point or wakes their own threads there. One
// list for each thread that has a Scope; a thread without one wakes a pool as it fills it.
//
// A thread settles where it holds no lock and before it waits for something outside of the service:
// a device, the poller, a read, a future, the end of a thread. A wait for a CondVar hands over by
// itself, so that no thread ever waits for work that it owes.
class OwedPools {
 public:
    // Makes the calling thread one that owes. At its end nothing is owed any more.
    class Scope : public NonCopyable {
     public:
        Scope();
        ~Scope();
    };

    // Runs the light pools that are owed, and those that they come to owe, as far as the bound on
    // one settling goes; wakes the others. Does nothing inside of a task that is run so.
    static void settle();
    // Wakes all of them.
    static void handOver();
    // Whether nothing is owed.
    static bool areSettled();
    // Before a wait that is no CondVar's. Debug builds end the process on a thread that owes.
    static void assertSettled() {
#ifndef NDEBUG
        CR_ASSERT(areSettled(), "a thread that waits owes a pool its turn");
#endif
    }

 private:
    friend class SerialPool;

    // False for a thread without a Scope, or without memory: then the pool is to be woken.
    static bool canOwe();
    // Right after canOwe().
    static void add(SerialPool& pool);
    static bool owes(const SerialPool& pool);
    // False if this thread does not owe it.
    static bool remove(SerialPool& pool);
};

}  // namespace kelm
