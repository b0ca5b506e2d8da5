#pragma once

#include <memory>
#include <string>

#include "client/Client.h"
#include "client/Snapshot.h"

namespace kelm::client {

// The service streams one at least every five seconds.
constexpr Deadline kSnapshotDeadline{15000};

// A connection to the stream of snapshots. No client of the service: it is not listed and needs no
// registration. Read on: the service hangs up on a reader that lags.
//
// Threads: one reads; interrupt() comes from any.
class SnapshotReader {
 public:
    // An empty path means the service's usual socket, or the one under KELM_RUN_DIR.
    static Result<std::unique_ptr<SnapshotReader>> connect(const std::string& socketPath = {},
                                                           Deadline deadline = kDefaultDeadline);
    ~SnapshotReader();
    SnapshotReader(const SnapshotReader&) = delete;
    SnapshotReader& operator=(const SnapshotReader&) = delete;

    // The next snapshot. After kTimeout the same one may be read on, also with a deadline of 0
    // whenever fd() is readable; after kConnectionLost connect again.
    Result<Snapshot> read(Deadline deadline = kSnapshotDeadline);
    // Ends the read in progress and every later one with kCanceled.
    void interrupt();
    // For poll(): readable when a part of a snapshot has come, or the stream has ended.
    int fd() const;

 private:
    class Impl;
    explicit SnapshotReader(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> m_impl;
};

}  // namespace kelm::client
