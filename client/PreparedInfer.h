#pragma once

#include <memory>

#include "client/Client.h"
#include "client/SlotClaim.h"
#include "protocol/src/KelmMessage.h"

namespace kelm::client {

// An inference as it is sent, perhaps more than once, and its claim on the slots. Client id and
// sequence number are filled in with each sending.
//
// Threads: one at a time.
class PreparedInfer {
 public:
    // kBusy if a slot is claimed by another task.
    static Result<PreparedInfer> make(const InferRequest& request);
    // With the buffers of one slot, the auxiliary one if flags ask for blocks.
    static Result<PreparedInfer> make(const std::shared_ptr<TensorSlot>& slot, uint32_t auxFlags);

    KelmMsgReqInferTask message{};
    std::shared_ptr<SlotClaim> claim;  // null: none of the buffers is a slot's
};

}  // namespace kelm::client
