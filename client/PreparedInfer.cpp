#include "client/PreparedInfer.h"

#include <fcntl.h>

#include <string>
#include <utility>

#include "client/TensorPool.h"
#include "utils/StringHelper.h"

namespace kelm::client {

namespace {

void nameMemory(KelmBuffer& buffer, const std::string& name, size_t size) {
    buffer.type = KELM_BUFFER_SHARE_MEMORY;
    buffer.size = size;
    StringHelper::copyStringSafe(buffer.name, name);
}

void fillBuffer(KelmBuffer& buffer, const Tensor& tensor) {
    if (tensor.kind == Tensor::Kind::kSharedMemory) {
        nameMemory(buffer, tensor.name, tensor.size);
    } else if (tensor.kind == Tensor::Kind::kDescriptor) {
        buffer.type = KELM_BUFFER_ION;
        buffer.size = tensor.size;
        buffer.fd = tensor.fd;
    }
}

PreparedInfer prepare(std::shared_ptr<SlotClaim> claim, uint32_t auxFlags, bool auxRequested) {
    PreparedInfer infer;
    infer.message.head.base.type = KELM_MESSAGE_INFER_TASK_REQ;
    infer.message.head.base.size = sizeof(infer.message);
    infer.message.head.needResponse = 1;
    infer.message.auxBuffer.auxFlags = auxFlags;
    infer.message.auxBuffer.auxRequested = auxRequested ? 1 : 0;
    infer.claim = std::move(claim);
    return infer;
}

// Sent along, one that is not open would end the connection for all.
Error checkDescriptor(const Tensor& tensor, const char* role) {
    if (tensor.kind != Tensor::Kind::kDescriptor) return {};
    if (tensor.fd > 0 && ::fcntl(tensor.fd, F_GETFD) >= 0) return {};
    return {ErrorKind::kSystem, 0,
            "descriptor " + std::to_string(tensor.fd) + " of the " + role +
                " tensor is not open; keep it open until the task has ended"};
}

}  // namespace

Result<PreparedInfer> PreparedInfer::make(const InferRequest& request) {
    const std::pair<const Tensor&, const char*> tensors[] = {
        {request.input, "input"}, {request.output, "output"}, {request.aux, "aux"}};
    for (const auto& [tensor, role] : tensors) {
        if (Error error = checkDescriptor(tensor, role)) return error;
    }
    auto claim = SlotClaim::make(request);
    if (!claim) return claim.error();
    PreparedInfer infer = prepare(std::move(claim).value(), request.auxFlags,
                                  request.aux.kind != Tensor::Kind::kNone);
    infer.message.graphId = request.graphId;
    infer.message.taskCookie0 = request.cookie0;
    infer.message.taskCookie1 = request.cookie1;
    fillBuffer(infer.message.inputBuffer, request.input);
    fillBuffer(infer.message.outputBuffer, request.output);
    fillBuffer(infer.message.auxBuffer, request.aux);
    return infer;
}

Result<PreparedInfer> PreparedInfer::make(const std::shared_ptr<TensorSlot>& slot,
                                          uint32_t auxFlags) {
    auto claim = SlotClaim::make(slot);
    if (!claim) return claim.error();
    PreparedInfer infer = prepare(std::move(claim).value(), auxFlags, auxFlags != 0);
    nameMemory(infer.message.inputBuffer, slot->inputName(), slot->input().size());
    nameMemory(infer.message.outputBuffer, slot->outputName(), slot->output().size());
    if (auxFlags != 0) {
        nameMemory(infer.message.auxBuffer, slot->auxName(), slot->aux().size());
    }
    return infer;
}

}  // namespace kelm::client
