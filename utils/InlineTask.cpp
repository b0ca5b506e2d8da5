#include "utils/InlineTask.h"

#include <exception>

#include "utils/Chaos.h"
#include "utils/Log.h"

namespace kelm {

void InlineTask::runLogged(const std::string& pool) {
    mayBeHeldUp();
    try {
        (*this)();
    } catch (const std::exception& error) {
        LOG_ERROR("Error: a task of pool %s ended with an exception: %s", pool, error.what());
    } catch (...) {
        LOG_ERROR("Error: a task of pool %s ended with an unknown exception", pool);
    }
}

}  // namespace kelm
