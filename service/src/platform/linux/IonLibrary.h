#pragma once

#include "platform/linux/IonApi.h"

namespace kelm {

// The functions of the ION allocator library, found at run time.
struct IonFunctions {
    decltype(&::ion_open) ion_open = nullptr;
    decltype(&::ion_close) ion_close = nullptr;
    decltype(&::ion_alloc_only) ion_alloc_only = nullptr;
    decltype(&::ion_share) ion_share = nullptr;
    decltype(&::ion_import) ion_import = nullptr;
    decltype(&::ion_get_info) ion_get_info = nullptr;
    decltype(&::ion_free) ion_free = nullptr;
};

// Loads the ION library at the first call that needs it, once for the process.
//
// Threads: any.
class IonLibrary {
 public:
    // Null if the library is missing or incomplete, which the first call has logged. The functions
    // stay for the rest of the process.
    static const IonFunctions* functions();
    // Makes functions() give these; null restores the library. For tests, before any use.
    static void install(const IonFunctions* functions);
};

}  // namespace kelm
