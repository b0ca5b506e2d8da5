#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "utils/UniqueMalloc.h"

namespace kelm {

class KelmGraph;
struct PeerCredentials;

// The bytes of a graph before there is a record of it. Digest and record come from the same bytes,
// so that a file which changes meanwhile cannot give a record under a wrong digest.
//
// Threads: one. Owns: what it read from a file; a buffer is borrowed while the object lives.
class GraphBlob {
 public:
    // What can be a graph: an existing regular file. Anything else is not even opened.
    static bool isGraphFile(const char* path);

    // An unreadable or oversized file, and one that the peer may not read, gives a blob without a
    // digest.
    static GraphBlob fromFile(const char* path, const PeerCredentials& peer);
    static GraphBlob fromBuffer(const char* data, uint64_t size);

    // What twins are looked up by; empty for a blob that cannot be used.
    const std::string& getHash() const { return m_hash; }

    // Null without memory for the bytes. A blob from a file gives its bytes away.
    std::unique_ptr<KelmGraph> makeGraph(uint64_t id, uint64_t clientId, const char* name,
                                         int32_t expectDevices);

 private:
    bool read(const char* path, const PeerCredentials& peer);

    std::string m_path;  // empty for a buffer
    std::string m_hash;
    std::string m_recordHash;
    UniqueMalloc<char> m_owned;
    const char* m_data = nullptr;
    uint64_t m_size = 0;
};

}  // namespace kelm
