#pragma once

#include <memory>
#include <optional>

#include "client/Client.h"

namespace kelm::client {

// The slots of one inference, which the pool gives to nobody else while this exists. Those that are
// written into belong to this inference alone, until it is settled; without that, for good.
//
// Threads: one at a time. Owns: a share of each slot.
class SlotHold {
 public:
    SlotHold() = default;
    // Nothing if a task that has not ended may write into one of them.
    static std::optional<SlotHold> claim(const InferRequest& request);

    // The service writes nothing any more: the task has ended, or was never there.
    void settle();
    // Whether there are any.
    explicit operator bool() const { return m_input || m_output || m_aux; }

 private:
    std::shared_ptr<TensorSlot> m_input;
    std::shared_ptr<TensorSlot> m_output;
    std::shared_ptr<TensorSlot> m_aux;
};

}  // namespace kelm::client
