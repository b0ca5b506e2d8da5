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

std::string finish(SHA256_CTX& context) {
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
    SHA256_Final(digest.data(), &context);
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * digest.size());
    for (const unsigned char byte : digest) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0x0f];
    }
    return text;
}

}  // namespace

std::string sha256ForFile(const char* path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        LOG_ERROR("failed to open file %s. errno = %d (%s)", path, errno, std::strerror(errno));
        return {};
    }
    SHA256_CTX context;
    SHA256_Init(&context);
    std::array<char, kBlockSize> block;
    while (file.read(block.data(), block.size()), file.gcount() > 0) {
        SHA256_Update(&context, block.data(), static_cast<size_t>(file.gcount()));
    }
    return finish(context);
}

std::string sha256ForBuffer(const char* data, unsigned long size) {
    if (data == nullptr || size == 0) return {};
    SHA256_CTX context;
    SHA256_Init(&context);
    SHA256_Update(&context, data, size);
    return finish(context);
}

std::string sha256ForString(const std::string& text) {
    return sha256ForBuffer(text.data(), text.size());
}

}  // namespace kelm
