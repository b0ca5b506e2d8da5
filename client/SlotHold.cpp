#include "client/SlotHold.h"

#include <iterator>

namespace kelm::client {

// Inputs are not claimed: several tasks may read the same one.
std::optional<SlotHold> SlotHold::claim(const InferRequest& request) {
    SlotHold hold;
    hold.m_input = request.input.slot;
    std::shared_ptr<TensorSlot>* const written[] = {&hold.m_output, &hold.m_aux};
    const Tensor* const tensors[] = {&request.output, &request.aux};
    for (size_t i = 0; i < std::size(written); ++i) {
        const std::shared_ptr<TensorSlot>& slot = tensors[i]->slot;
        if (!slot || slot == hold.m_output) continue;
        if (slot->m_awaited.exchange(true)) {
            hold.settle();
            return std::nullopt;
        }
        *written[i] = slot;
    }
    return hold;
}

void SlotHold::settle() {
    for (const auto* slot : {&m_output, &m_aux}) {
        if (*slot) (*slot)->m_awaited.store(false);
    }
    *this = SlotHold();
}

}  // namespace kelm::client
