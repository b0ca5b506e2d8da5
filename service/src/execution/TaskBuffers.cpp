#include "execution/TaskBuffers.h"

#include <memory>
#include <string>

#include "protocol/src/KelmMessage.h"
#include "records/BufferAllocator.h"
#include "records/KelmTaskParam.h"
#include "utils/Log.h"
#include "utils/MappingGuard.h"
#include "utils/ShareMemory.h"
#include "utils/StringHelper.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

bool mapIonBuffer(KelmBuffer& buffer) {
    (void)BufferAllocator::instance().import(buffer.fd, &buffer);  // has logged why
    if (buffer.buffer != 0) return true;
    LOG_ERROR("Error: ion buffer(shareFd=%d) mapping failed", buffer.fd);
    return false;
}

// The mapping belongs to the buffer, and is released with its task. `peer` has sent the task: the
// name leads wherever it likes, so the memory is opened with its rights and not with the service's.
bool mapShareMemory(KelmBuffer& buffer, const PeerCredentials& peer, FileRights::Access wanted) {
    const std::string name = StringHelper::readBounded(buffer.name);
    auto shareMemory = std::make_unique<ShareMemory>();
    void* const data = shareMemory->openFor(peer, wanted, name.c_str(), buffer.size);
    if (data == nullptr) {
        LOG_ERROR("Error: share memory buffer('%s') mapping failed", escapeControls(name));
        return false;
    }
    buffer.buffer = reinterpret_cast<uint64_t>(data);
    buffer.shareMemory = reinterpret_cast<uint64_t>(shareMemory.release());
    return true;
}

}  // namespace

// What the client has written is all that is known here; the memory itself is looked at when it is
// mapped.
bool TaskBuffers::verifyBuffer(const KelmBuffer& buffer) {
    if (buffer.size == 0) {
        LOG_ERROR("Error: invalid buffer size %lu", buffer.size);
        return false;
    }
    if (buffer.type == KELM_BUFFER_ION && buffer.fd <= 0) {
        LOG_ERROR("Error: invalid shareFd %d", buffer.fd);
        return false;
    }
    return true;
}

// The auxiliary buffer counts only if the client has asked for it.
int TaskBuffers::verifyResultBuffers(KelmTaskParam& param) {
    if (!verifyBuffer(param.getOutputBuffer())) return KELM_ERROR_INVALID_OUTPUT_BUFFER;
    const KelmBuffer& aux = param.getAuxBuffer();
    if (aux.auxRequested != 0 && !verifyBuffer(aux)) return KELM_ERROR_INVALID_AUX_BUFFER;
    return KELM_OK;
}

// A client that shortens its memory under a mapping would kill the service by a signal; the guard
// has put other memory in its place and remembers that.
int TaskBuffers::verifyMappings(KelmTaskParam& param) {
    const struct {
        const KelmBuffer& buffer;
        int error;
    } rows[] = {{param.getInputBuffer(), KELM_ERROR_MAP_INPUT_FAILED},
                {param.getOutputBuffer(), KELM_ERROR_MAP_OUTPUT_FAILED},
                {param.getAuxBuffer(), KELM_ERROR_MAP_AUX_FAILED}};
    for (const auto& [buffer, error] : rows) {
        if (buffer.buffer == 0) continue;  // not mapped
        if (MappingGuard::isLost(reinterpret_cast<const void*>(buffer.buffer))) return error;
    }
    return KELM_OK;
}

bool TaskBuffers::mapBuffer(const KelmTaskParam& param, KelmBuffer& buffer,
                            FileRights::Access wanted) {
    if (buffer.buffer != 0) return true;  // mapped by an earlier attempt of the task
    if (buffer.type == KELM_BUFFER_ION) return mapIonBuffer(buffer);
    if (buffer.type == KELM_BUFFER_SHARE_MEMORY) {
        return mapShareMemory(buffer, param.getPeer(), wanted);
    }
    return false;
}

}  // namespace kelm
