#include "tools/gateway/Inference.h"

#include <algorithm>
#include <utility>

#include "kelm/kelm.h"
#include "tools/gateway/Failure.h"

namespace kelm::gateway {

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

void requireShape(const TensorDescription& tensor, const Shape& shape) {
    const bool fits = std::ranges::equal(tensor.shape, shape, [](int64_t wanted, int64_t given) {
        return wanted == given || (wanted == -1 && given >= 0);
    });
    if (!fits) {
        refuse("input '" + tensor.name + "' has shape " + toText(tensor.shape) + ", not " +
               toText(shape));
    }
}

}  // namespace

std::shared_ptr<Inference> Inference::admit(std::shared_ptr<Model> model) {
    model->requireRoom();
    return std::shared_ptr<Inference>(new Inference(std::move(model)));
}

Inference::Inference(std::shared_ptr<Model> model)
    : m_model(std::move(model)), m_slot(m_model->graph().acquire()) {}

std::span<std::byte> Inference::claimInput(const TensorClaim& claim) {
    const auto& inputs = description().inputs;
    const auto tensor = std::ranges::find(inputs, claim.name, &TensorDescription::name);
    if (tensor == inputs.end()) refuse("the model has no input '" + claim.name + "'");
    if (std::ranges::count(m_claimed, &*tensor, &Claimed::tensor) > 0) {
        refuse("input '" + claim.name + "' is there twice");
    }
    const DatatypeInfo& type = infoOf(tensor->datatype);
    if (claim.datatype != type.name) {
        refuse("input '" + claim.name + "' has datatype " + std::string(type.name) + ", not '" +
               claim.datatype + "'");
    }
    requireShape(*tensor, claim.shape);
    const auto elements = countElements(claim.shape);
    const bool isRight = elements && (type.bytes == 0 || claim.bytes == *elements * type.bytes);
    if (!isRight) {
        refuse("input '" + claim.name + "' has " + std::to_string(claim.bytes) +
               " bytes, which is not what its shape " + toText(claim.shape) + " needs");
    }
    if (claim.bytes > tensor->bytes) {
        refuse("input '" + claim.name + "' has " + std::to_string(claim.bytes) +
               " bytes, but room for " + std::to_string(tensor->bytes));
    }
    const auto room = m_slot->input().subspan(tensor->offset, tensor->bytes);
    const auto bytes = room.first(claim.bytes);
    std::ranges::fill(room.subspan(claim.bytes), std::byte{0});
    m_claimed.push_back({&*tensor, bytes, *elements});
    return bytes;
}

void Inference::requireInputs() const {
    for (const TensorDescription& each : description().inputs) {
        const auto claimed = std::ranges::find(m_claimed, &each, &Claimed::tensor);
        if (claimed == m_claimed.end()) refuse("input '" + each.name + "' is missing");
        if (each.datatype != Datatype::kBytes) continue;
        if (measureBytes(claimed->bytes, claimed->elements) != claimed->bytes.size()) {
            refuse("the bytes of input '" + each.name + "' are not its " +
                   std::to_string(claimed->elements) +
                   " elements, each a length and as many bytes");
        }
    }
}

void Inference::start(const Wish& wish, std::function<void(const TaskEnd&)> done) {
    requireInputs();
    const auto timeout = wish.timeout.value_or(description().deadline);
    const auto left = std::chrono::ceil<milliseconds>(
        timeout - std::chrono::duration_cast<microseconds>(Clock::now() - wish.begun));
    if (left <= milliseconds(0)) {
        throw Failure(Cause::kExpired, "the deadline passed before the request was there");
    }
    const uint32_t highest = description().priority;
    const TaskWish task{.deadline = left,
                        .priority = std::min(wish.priority.value_or(highest), highest)};
    m_model->begin(weak_from_this());
    const uint64_t ticket = startInQueue(task, std::move(done));
    MutexLock lock(m_mutex);
    m_ticket = ticket;
}

uint64_t Inference::startInQueue(const TaskWish& task, std::function<void(const TaskEnd&)> done) {
    m_model->enter();
    try {
        return m_model->graph().start(
            *m_slot, task,
            [self = shared_from_this(), done = std::move(done)](const TaskEnd& taskEnd) {
                self->m_model->leave();
                self->end(taskEnd, done);
            });
    } catch (...) {
        m_model->leave();
        throw;
    }
}

void Inference::end(TaskEnd taskEnd, const std::function<void(const TaskEnd&)>& done) {
    {
        MutexLock lock(m_mutex);
        m_hasEnded = true;
        if (taskEnd.error == KELM_CANCELED && !m_takenBack.empty()) {
            taskEnd.error = kNoDevice;
            taskEnd.text = m_takenBack + "; the task was taken back before it ran";
        }
    }
    done(taskEnd);
}

void Inference::cancel() {
    std::optional<uint64_t> ticket;
    {
        MutexLock lock(m_mutex);
        if (!m_hasEnded && !m_isCanceling) ticket = m_ticket;
        if (!ticket) return;
        m_isCanceling = true;
    }
    m_model->chores().add([self = shared_from_this(), ticket] {
        self->m_model->graph().cancel(*ticket);
        MutexLock lock(self->m_mutex);
        self->m_isCanceling = false;
    });
}

void Inference::takeBack(const std::string& reason) {
    {
        MutexLock lock(m_mutex);
        m_takenBack = reason;
    }
    cancel();
}

std::span<const std::byte> Inference::output(const TensorDescription& tensor) const {
    const std::span<const std::byte> bytes = m_slot->output().subspan(tensor.offset, tensor.bytes);
    if (tensor.datatype != Datatype::kBytes) return bytes;
    const auto used = measureBytes(bytes, countElements(tensor.shape).value_or(0));
    if (!used) {
        throw Failure(Cause::kInternal, "the graph wrote no elements into output '" + tensor.name +
                                            "'; does its description fit it?");
    }
    return bytes.first(*used);
}

}  // namespace kelm::gateway
