#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "managers/FileDigests.h"
#include "utils/Digest.h"
#include "utils/UniqueFd.h"
#include "utils/UniqueMalloc.h"

namespace kelm {

class KelmGraph;
struct PeerCredentials;

// The bytes of a graph before there is a record of it, read and digested slice by slice, since a
// blob can be large and the thread has other work. Digest and record come from the same bytes, so
// that a file which changes meanwhile cannot give a record under a wrong digest.
//
// Threads: one. Owns: the bytes, and the file until it is read.
class GraphBlob {
 public:
    // What can be a graph: an existing regular file. Anything else is not even opened.
    static bool isGraphFile(const char* path);

    // Opens the file and reads nothing yet. What cannot be opened, is too large or no regular file,
    // or may not be read by the peer, gives a blob that stays without a digest.
    static GraphBlob fromFile(const char* path, const PeerCredentials& peer);
    static GraphBlob fromBuffer(UniqueMalloc<char> bytes, uint64_t size);

    // A blob without bytes.
    GraphBlob() = default;

    // Takes the next slice; true when nothing is left to do.
    bool advance();

    // The state of the file when it was opened; nothing for a buffer.
    const std::optional<FileIdentity>& getIdentity() const { return m_identity; }
    // Whether the digest is that of every file in the same state: the file has not changed while it
    // was read, and a change right after it would have shown.
    bool isIdentityProven() const { return m_identityProven; }

    // The digest by which twins are found, after the last slice; empty for a blob without use.
    const std::string& getHash() const { return m_hash; }

    // Gives the bytes away.
    std::unique_ptr<KelmGraph> makeGraph(uint64_t id, uint64_t clientId, const char* name,
                                         int32_t expectDevices);

    static constexpr uint64_t kSliceBytes = 4ULL << 20;  // some milliseconds

 private:
    bool open(const char* path, const PeerCredentials& peer);
    bool takeSlice();
    void finish();

    std::string m_path;  // empty for a buffer
    UniqueFd m_file;
    std::optional<FileIdentity> m_identity;
    int64_t m_openTime = 0;  // by the clock that marks files
    bool m_identityProven = false;
    UniqueMalloc<char> m_bytes;  // of a file: with the first slice
    uint64_t m_size = 0;
    uint64_t m_done = 0;
    Sha256 m_digest;
    std::string m_hash;
};

}  // namespace kelm
