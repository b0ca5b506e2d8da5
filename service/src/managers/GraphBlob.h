#pragma once

#include <sys/stat.h>

#include <compare>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

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
    // One state of one file. A write makes another state of it, provided that the file system's
    // clock has ticked since the last: see isIdentityProven().
    struct FileIdentity {
        explicit FileIdentity(const struct stat& status);
        // The check takes the 0 of the generated comparison for a pointer.
        auto operator<=>(const FileIdentity&) const = default;  // NOLINT(modernize-use-nullptr)

        uint64_t device;
        uint64_t inode;
        int64_t size;
        int64_t modified;  // nanoseconds of the system clock
        int64_t changed;   // the same; a process cannot set it, as it can `modified`
    };

    // The digests of the files that were read last.
    //
    // Threads: one. Owns: at most kMost entries, of which the oldest makes room.
    class FileDigests {
     public:
        // Null if the file was never seen in this state, or too long ago.
        const std::string* find(const FileIdentity& file) const;
        void remember(const FileIdentity& file, const std::string& digest);

        static constexpr size_t kMost = 256;

     private:
        std::map<FileIdentity, std::string> m_digests;
        std::deque<FileIdentity> m_order;  // oldest first
    };

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
    // Whether the digest is that of every file in the same state, and so may be remembered: the
    // file has not changed while it was read, and a change right after it would have shown.
    bool isIdentityProven() const { return m_identityProven; }

    // Whether there was no memory for the bytes; once nothing is left to do.
    bool lacksMemory() const { return !m_bytes && (m_file || m_size != 0); }

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
