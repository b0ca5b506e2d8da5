#include "platform/linux/IonLibrary.h"

#include <atomic>

#include "config/AcceleratorLibraries.h"
#include "utils/DynamicLibrary.h"

namespace kelm {

namespace {

// Atomic: a pointer of its own to a table that does not change.
std::atomic<const IonFunctions*> installed{nullptr};

// All of them or none: with half a library a buffer might be made that cannot be given back.
const IonFunctions* load() {
    static IonFunctions found;
    const DynamicLibrary::Function functions[] = {
        {"ion_open", &found.ion_open},         {"ion_close", &found.ion_close},
        {"ion_share", &found.ion_share},       {"ion_alloc_only", &found.ion_alloc_only},
        {"ion_import", &found.ion_import},     {"ion_free", &found.ion_free},
        {"ion_get_info", &found.ion_get_info},
    };
    return DynamicLibrary::load(kIonLibraryName, functions) ? &found : nullptr;
}

}  // namespace

const IonFunctions* IonLibrary::functions() {
    if (const IonFunctions* functions = installed.load()) return functions;
    static const IonFunctions* const loaded = load();
    return loaded;
}

void IonLibrary::install(const IonFunctions* functions) { installed.store(functions); }

}  // namespace kelm
