#include "utils/platform/linux/ProcessHelper.h"

#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "utils/Log.h"

namespace kelm {

void ProcessHelper::killProcessByName(const char* name) {
    if (name == nullptr) return;
    const int status = std::system((std::string("pkill ") + name).c_str());
    if (status == -1 || WIFSIGNALED(status)) LOG_ERROR("Failed to stop %s", name);
}

}  // namespace kelm
