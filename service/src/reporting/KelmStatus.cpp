#include "reporting/KelmStatus.h"

#include "protocol/src/MessagePtr.h"

namespace kelm {

KelmStatusExtend::~KelmStatusExtend() { kelmReleaseMessage(static_cast<KelmMsgBase*>(request)); }

}  // namespace kelm
