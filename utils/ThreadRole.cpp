#include "utils/ThreadRole.h"

#include "utils/ErrorHelper.h"
#include "utils/ThreadUtils.h"

namespace kelm {

#ifndef NDEBUG
// The first thread to come here becomes the owner; atomically, so that of two only one does.
void ThreadRole::checkThread() const {
    int owner = 0;
    const int self = ThreadUtils::getThreadId();
    const bool held = m_owner.compare_exchange_strong(owner, self) || owner == self;
    CR_ASSERT(held, "state of another thread was touched");
}
#endif

}  // namespace kelm
