#pragma once

#include <memory>

#include "client/Error.h"

namespace kelm::client {

class TensorSlot;
struct InferRequest;

// The slots of one inference, which their pools give to no other user while this exists. Those that
// are written into belong to this inference alone. Shared by all that know of the task: the slots
// are free for the next one when the last of them lets go.
//
// Threads: any, but abandon() while another thread lets go. Owns: a share of each slot.
class SlotClaim {
 public:
    // Null if the request has no slots. kBusy if a task that has not ended may write into one that
    // the request is to write into.
    static Result<std::shared_ptr<SlotClaim>> make(const InferRequest& request);
    // All buffers of one slot.
    static Result<std::shared_ptr<SlotClaim>> make(std::shared_ptr<TensorSlot> slot);
    ~SlotClaim();
    SlotClaim(const SlotClaim&) = delete;
    SlotClaim& operator=(const SlotClaim&) = delete;

    // The end of the task will never be known: the slots stay claimed for good.
    void abandon() { m_abandoned = true; }
    // Null where the request has none.
    const std::shared_ptr<TensorSlot>& input() const { return m_input; }
    const std::shared_ptr<TensorSlot>& output() const { return m_output; }
    const std::shared_ptr<TensorSlot>& aux() const { return m_aux; }

 private:
    SlotClaim() = default;
    // False if another task has it.
    static bool take(const std::shared_ptr<TensorSlot>& slot, std::shared_ptr<TensorSlot>& place);

    std::shared_ptr<TensorSlot> m_input;
    std::shared_ptr<TensorSlot> m_output;
    std::shared_ptr<TensorSlot> m_aux;  // null also if it is that of the output
    bool m_abandoned = false;
};

}  // namespace kelm::client
