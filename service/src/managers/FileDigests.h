#pragma once

#include <sys/stat.h>

#include <compare>
#include <cstdint>
#include <deque>
#include <map>
#include <string>

namespace kelm {

// One state of one file. A write makes another state of it, provided that the file system's clock
// has ticked since the last; see GraphBlob.
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

}  // namespace kelm
