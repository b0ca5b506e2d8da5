#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "utils/StandardOutput.h"

namespace kelm {

void StandardOutput::flushLines() {
    struct stat status {};
    if (::fstat(STDOUT_FILENO, &status) != 0 || S_ISREG(status.st_mode)) return;
    // The standard stream keeps no buffer of its own. A refusal leaves the buffer as it was.
    (void)std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
}

// The variable names the stream that the journal gave: a process whose output was redirected since
// has inherited it, too.
bool StandardOutput::isJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    if (stream == nullptr || ::fstat(STDOUT_FILENO, &status) != 0) return false;
    return stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

}  // namespace kelm
