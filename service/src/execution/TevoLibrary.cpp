#include "execution/TevoLibrary.h"

#include <atomic>

#include "config/AcceleratorLibraries.h"
#include "utils/DynamicLibrary.h"

namespace kelm {

namespace {

// Atomic: a pointer of its own to a table that does not change.
std::atomic<const TevoFunctions*> installed{nullptr};

TevoFunctions load() {
    TevoFunctions found;
    const DynamicLibrary::Function functions[] = {
#define KELM_TEVO_ROW(name) {#name, &found.name},
        KELM_TEVO_FUNCTIONS(KELM_TEVO_ROW)
#undef KELM_TEVO_ROW
    };
    (void)DynamicLibrary::load(kTevoLibraryName, functions);  // else they stay as they are made
    return found;
}

}  // namespace

const TevoFunctions& TevoLibrary::functions() {
    if (const TevoFunctions* functions = installed.load()) return *functions;
    // By the first caller; others wait for it, as the language says of such a static.
    static const TevoFunctions loaded = load();
    return loaded;
}

void TevoLibrary::install(const TevoFunctions* functions) { installed.store(functions); }

}  // namespace kelm
