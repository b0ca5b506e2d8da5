#include <dlfcn.h>

#include <cstring>
#include <vector>

#include "utils/DynamicLibrary.h"
#include "utils/Log.h"

namespace kelm {

// Everything is resolved before anything is stored, so that a caller never has half a library. The
// handle is never closed: functions may be called until the end of the process.
bool DynamicLibrary::load(const char* library, std::span<const Function> functions) {
    void* const handle = ::dlopen(library, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* const reason = ::dlerror();
        LOG_ERROR("Error: library %s cannot be loaded: %s", library, reason);
        return false;
    }
    std::vector<void*> addresses;
    for (const Function& function : functions) {
        addresses.push_back(::dlsym(handle, function.name));
        if (addresses.back() != nullptr) continue;
        LOG_ERROR("Error: library %s has no function %s", library, function.name);
        return false;
    }
    for (size_t i = 0; i < functions.size(); ++i) {
        std::memcpy(functions[i].pointer, &addresses[i], sizeof(addresses[i]));
    }
    return true;
}

}  // namespace kelm
