#pragma once

#include <atomic>

#include "utils/ThreadAnnotations.h"

namespace kelm {

// State that belongs to one thread and not to a mutex, said so that the compiler checks it:
// a field is GUARDED_BY(role), and each closure or thread body starts with role.assertHeld().
// Debug builds bind the role to the first thread that asserts it and end the process on another. A
// thread that helps a pool passes for the pool's.
class CAPABILITY("role") ThreadRole {
 public:
    void assertHeld() const ASSERT_CAPABILITY(this) {
#ifndef NDEBUG
        checkThread();
#endif
    }

 private:
#ifndef NDEBUG
    void checkThread() const;
    mutable std::atomic<int> m_owner{0};  // atomic: any thread may compare itself to it
#endif
};

}  // namespace kelm
