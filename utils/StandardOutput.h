#pragma once

namespace kelm {

// Where the standard output stream of this process leads.
//
// Threads: the main thread, before it starts others.
class StandardOutput {
 public:
    // From here on each line leaves with its end, so that a pipe's reader sees it at once. A
    // regular file gets what it always got, in large blocks. To be called before anything is
    // written.
    static void flushLines();
    // Whether the reader is the system's journal, which says so by JOURNAL_STREAM.
    static bool isJournal();
};

}  // namespace kelm
