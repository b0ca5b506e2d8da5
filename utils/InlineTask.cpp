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
        reset();  // here, so that what it captured knows of the exception
    } catch (...) {
        LOG_ERROR("Error: a task of pool %s ended with an unknown exception", pool);
        reset();
    }
}

}  // namespace kelm
