#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace kelm {

// SHA-256 of bytes that come piece by piece. One thread.
class Sha256 {
 public:
    Sha256();
    ~Sha256();
    Sha256(Sha256&& other) noexcept;
    Sha256& operator=(Sha256&& other) noexcept;

    void update(const char* data, size_t size);
    // The digest of all pieces as 64 lower-case hexadecimal digits; once, as the last call.
    std::string finish();

 private:
    struct Context;  // keeps the library out of the header

    std::unique_ptr<Context> m_context;
};

// SHA-256 as 64 lower-case hexadecimal digits; an empty string is the sign of failure. Any thread.
// A file that cannot be opened is logged; a read error looks like the end of the file.
std::string sha256ForFile(const char* path);
// Null or a size of 0 gives the empty string, unlike an empty file.
std::string sha256ForBuffer(const char* data, unsigned long size);
std::string sha256ForString(const std::string& text);

}  // namespace kelm
