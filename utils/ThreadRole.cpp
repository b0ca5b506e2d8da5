#include "utils/ThreadRole.h"

#include "utils/ErrorHelper.h"
#include "utils/ThreadUtils.h"

namespace kelm {

#ifndef NDEBUG
void ThreadRole::checkThread() const {
    int owner = 0;
    const int self = ThreadUtils::getThreadId();
    const bool held = m_owner.compare_exchange_strong(owner, self) || owner == self;
    CR_ASSERT(held, "state of another thread was touched");
}
#endif

}  // namespace kelm
