#pragma once

namespace kelm {

// Base of what has an identity and must not be copied.
class NonCopyable {
 public:
    NonCopyable(const NonCopyable&) = delete;
    NonCopyable& operator=(const NonCopyable&) = delete;

 protected:
    NonCopyable() = default;
    ~NonCopyable() = default;
};

}  // namespace kelm
