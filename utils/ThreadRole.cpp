#include "utils/ThreadRole.h"

#include "utils/ErrorHelper.h"

namespace kelm {

#ifndef NDEBUG
// The first thread to come here becomes the owner; atomically, so that of two only one does.
void ThreadRole::checkThread() const {
    std::thread::id owner{};
    const std::thread::id self = std::this_thread::get_id();
    const bool held = m_owner.compare_exchange_strong(owner, self) || owner == self;
    CR_ASSERT(held, "state of another thread was touched");
}
#endif

}  // namespace kelm
