#include "client/SystemError.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

namespace kelm::client {

namespace {

struct RemedyRow {
    int number;
    const char* remedy;
};

constexpr RemedyRow kRemedies[] = {
    {EMFILE,
     "this process has as many files open as it may; close some, or raise its limit (ulimit -n)"},
    {ENFILE, "the machine has as many files open as it may; raise fs.file-max, or end programs"},
    {ENOMEM,
     "end other programs, or raise what this one may have: ulimit -v, its container's memory"},
    {EAGAIN,
     "there are as many threads as may be; end programs, or raise the limit: ulimit -u, the "
     "container's pids"},
    {EACCES, "give this user the rights to it, or name another one"},
    {EPERM, "give this user the rights to it, or name another one"},
    {ENOENT, "name one that exists"},
    {ENOTDIR, "name one that exists"},
    {EISDIR, "name a file"},
    {ENAMETOOLONG, "name it by a shorter path"},
    {ELOOP, "links lead in a circle there; name another one"},
};

}  // namespace

std::string describeSystemError(int number) {
    const auto* const row =
        std::find_if(std::begin(kRemedies), std::end(kRemedies),
                     [number](const RemedyRow& each) { return each.number == number; });
    // Of the rest the hardware or a driver is the cause, which the kernel tells of.
    const char* const remedy =
        row != std::end(kRemedies) ? row->remedy : "see the kernel's log (dmesg)";
    return std::string(std::strerror(number)) + "; " + remedy;
}

}  // namespace kelm::client
