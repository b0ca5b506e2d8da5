#include "utils/Digest.h"

// The streaming calls are the ones that this code is built on, though newer ones exist.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/sha.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "utils/Log.h"

namespace kelm {

namespace {

constexpr size_t kBlockSize = 4096;

}  // namespace

struct Sha256::Context {
    SHA256_CTX state;
};

Sha256::Sha256() : m_context(std::make_unique<Context>()) { SHA256_Init(&m_context->state); }
Sha256::~Sha256() = default;
Sha256::Sha256(Sha256&& other) noexcept = default;
Sha256& Sha256::operator=(Sha256&& other) noexcept = default;

void Sha256::update(const char* data, size_t size) { SHA256_Update(&m_context->state, data, size); }

std::string Sha256::finish() {
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
    SHA256_Final(digest.data(), &m_context->state);
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * digest.size());
    for (const unsigned char byte : digest) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0x0f];
    }
    return text;
}

// By blocks: the file need not fit into memory.
std::string sha256ForFile(const char* path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        LOG_ERROR("failed to open file %s. errno = %d (%s)", path, errno, std::strerror(errno));
        return {};
    }
    Sha256 digest;
    std::array<char, kBlockSize> block;
    while (file.read(block.data(), block.size()), file.gcount() > 0) {
        digest.update(block.data(), static_cast<size_t>(file.gcount()));
    }
    return digest.finish();
}

// Empty for no bytes: that stands for "no digest", as it does for a file that does not open.
std::string sha256ForBuffer(const char* data, unsigned long size) {
    if (data == nullptr || size == 0) return {};
    Sha256 digest;
    digest.update(data, size);
    return digest.finish();
}

std::string sha256ForString(const std::string& text) {
    return sha256ForBuffer(text.data(), text.size());
}

}  // namespace kelm
