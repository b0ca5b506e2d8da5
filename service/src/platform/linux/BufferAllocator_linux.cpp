#include <unistd.h>

#include "protocol/src/KelmMessage.h"
#include "records/BufferAllocator.h"
#include "utils/Log.h"

namespace kelm {

KelmError BufferAllocator::free(KelmBuffer* buffer) {
    if (buffer == nullptr) {
        LOG_ERROR("Error: KelmBuffer* buffer is NULL");
        return KELM_ERROR_INVALID_PARAM;
    }
    if (buffer->fd > 0) {
        (void)::close(buffer->fd);  // the number is gone whatever close says
        buffer->fd = 0;
    }
    return KELM_OK;
}

}  // namespace kelm
