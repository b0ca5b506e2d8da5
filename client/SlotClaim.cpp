#include "client/SlotClaim.h"

#include <utility>

#include "client/Client.h"

namespace kelm::client {

namespace {

Error slotIsBusy() {
    return {ErrorKind::kBusy, 0,
            "a task that has not ended may still write into the slot; wait for its end or acquire "
            "another slot"};
}

}  // namespace

bool SlotClaim::take(const std::shared_ptr<TensorSlot>& slot, std::shared_ptr<TensorSlot>& place) {
    if (slot->m_awaited.exchange(true)) return false;
    place = slot;
    return true;
}

// Inputs are not claimed: several tasks may read the same one. What was taken before a refusal is
// given back by the destructor.
Result<std::shared_ptr<SlotClaim>> SlotClaim::make(const InferRequest& request) {
    const std::shared_ptr<TensorSlot>& output = request.output.slot;
    const std::shared_ptr<TensorSlot>& aux = request.aux.slot;
    if (!request.input.slot && !output && !aux) return std::shared_ptr<SlotClaim>();
    const std::shared_ptr<SlotClaim> claim(new SlotClaim);
    claim->m_input = request.input.slot;
    if (output && !take(output, claim->m_output)) return slotIsBusy();
    if (aux && aux != output && !take(aux, claim->m_aux)) return slotIsBusy();
    return claim;
}

Result<std::shared_ptr<SlotClaim>> SlotClaim::make(std::shared_ptr<TensorSlot> slot) {
    const std::shared_ptr<SlotClaim> claim(new SlotClaim);
    if (!take(slot, claim->m_output)) return slotIsBusy();
    claim->m_input = std::move(slot);
    return claim;
}

SlotClaim::~SlotClaim() {
    if (m_abandoned) return;
    for (const auto* slot : {&m_output, &m_aux}) {
        if (*slot) (*slot)->m_awaited.store(false);
    }
}

}  // namespace kelm::client
