#pragma once

#include "utils/NonCopyable.h"

namespace kelm {

// The one object of its kind: built at first use, destroyed at process exit in reverse order.
// Reaching instance() from the object's own constructor ends the process.
template <class T>
class Singleton : public NonCopyable {
 public:
    static T& instance() {
        static T obj;
        return obj;
    }

 protected:
    Singleton() = default;
    ~Singleton() = default;
};

}  // namespace kelm
