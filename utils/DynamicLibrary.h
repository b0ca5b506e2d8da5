#pragma once

#include <span>

namespace kelm {

// A shared library that is loaded by its name while the program runs, so that the program starts on
// a machine without it. It is never unloaded: a thread may be inside of it until the process ends.
//
// Threads: any.
class DynamicLibrary {
 public:
    // A function to find, and the function pointer that takes its address.
    struct Function {
        const char* name;
        void* pointer;
    };

    // All or nothing: true if the library is there and has every function. Otherwise one ERROR line
    // names what is missing, and no pointer has changed.
    [[nodiscard]] static bool load(const char* library, std::span<const Function> functions);
};

}  // namespace kelm
