#include "client/FileBytes.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>

#include "client/SystemError.h"
#include "utils/UniqueFd.h"

namespace kelm::client {

namespace {

constexpr size_t kFirstBytes = 64 * 1024;

[[noreturn]] void fail(const std::string& path, const std::string& why) {
    throw std::runtime_error("cannot read " + path + ": " + why);
}

}  // namespace

// Until its end and not by its size, which a pipe does not have.
std::vector<std::byte> readFileBytes(const std::string& path) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) fail(path, describeSystemError(errno));
    std::vector<std::byte> bytes(kFirstBytes);
    size_t filled = 0;
    while (true) {
        const ssize_t count = ::read(file.get(), bytes.data() + filled, bytes.size() - filled);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) fail(path, describeSystemError(errno));
        if (count == 0) break;
        filled += static_cast<size_t>(count);
        if (filled > UINT32_MAX)
            fail(path, "it has more than the 4 GB of a request; compile a smaller graph");
        if (filled == bytes.size()) bytes.resize(2 * filled);
    }
    bytes.resize(filled);
    return bytes;
}

}  // namespace kelm::client
