#include "client/SegmentName.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <sstream>

namespace kelm::client {

namespace {

constexpr size_t kMostBytes = 64;  // with the closing zero

struct Process {
    char state = 0;
    int threads = 0;
    uint64_t start = 0;  // in ticks since the machine started
};

// In a container it may be the machine's, where the same number is another process.
bool isProcOfThisNamespace() {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self", error) == std::to_string(::getpid());
}

// Nothing if the process is not there, or is hidden from this user.
std::optional<Process> findProcess(pid_t pid) {
    if (!isProcOfThisNamespace()) return std::nullopt;
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    // The process may end between the opening and the reading, of which an iterator would raise.
    (void)std::getline(file, text, '\0');
    // Its second field is a name in parentheses, which may hold any characters.
    const size_t end = text.rfind(')');
    if (end == text.npos) return std::nullopt;
    std::istringstream fields(text.substr(end + 1));
    const auto skip = [&fields](int count) {
        for (std::string field; count > 0; --count) fields >> field;
    };
    Process process;
    fields >> process.state;
    skip(16);
    fields >> process.threads;
    skip(1);
    fields >> process.start;
    return fields ? std::optional(process) : std::nullopt;
}

// In doubt it lives. A process that has died stays as a zombie until its parent looks; one whose
// first thread has ended before the others looks like that, too.
bool isDead(pid_t pid, uint64_t start) {
    if (::kill(pid, 0) != 0 && errno == ESRCH) return true;
    const std::optional<Process> process = findProcess(pid);
    if (!process || start == 0) return false;
    return process->start != start || (process->state == 'Z' && process->threads <= 1);
}

// A number of its own for each namespace; 0 if the system does not tell.
uint64_t pidNamespace() {
    struct stat info {};
    return ::stat("/proc/self/ns/pid", &info) == 0 ? info.st_ino : 0;
}

bool isLeftOver(const std::string& name, uint64_t ownNamespace) {
    int pid = 0;
    uint64_t space = 0;
    uint64_t start = 0;
    int length = 0;
    // The widths keep the numbers within their types.
    const int count = std::sscanf(name.c_str(), "kelm-%9d-%15lx-%15lx-%*16[0-9a-f]%n", &pid, &space,
                                  &start, &length);
    const bool isOurs = count == 3 && static_cast<size_t>(length) == name.size() && pid > 0;
    return isOurs && space == ownNamespace && isDead(pid, start);
}

}  // namespace

std::string SegmentName::make() {
    static thread_local std::random_device device;
    const pid_t pid = ::getpid();
    const std::optional<Process> self = findProcess(pid);
    // 64 random bits, so that a name is met by chance neither here nor by those who may not know
    // it.
    std::array<char, kMostBytes> name{};
    (void)std::snprintf(name.data(), name.size(), "/kelm-%d-%lx-%lx-%08x%08x", pid, pidNamespace(),
                        self ? self->start : 0, device(), device());
    return name.data();
}

std::vector<SegmentName::LeftOver> SegmentName::listThoseOfDeadProcesses() {
    const uint64_t ownNamespace = pidNamespace();
    std::vector<LeftOver> found;
    std::error_code error;
    for (std::filesystem::directory_iterator at(kDirectory, error), end; !error && at != end;
         at.increment(error)) {
        const std::string name = at->path().filename().string();
        struct stat info {};
        if (!isLeftOver(name, ownNamespace) || ::lstat(at->path().c_str(), &info) != 0) continue;
        found.push_back({"/" + name, info.st_uid, static_cast<uint64_t>(info.st_size)});
    }
    return found;
}

// Each was made by this user, or it cannot be removed: the directory has the sticky bit. As root
// the owner must be asked for, since root could remove all.
void SegmentName::removeThoseOfDeadProcesses() {
    for (const LeftOver& object : listThoseOfDeadProcesses()) {
        if (object.owner == ::geteuid()) (void)::shm_unlink(object.name.c_str());
    }
}

}  // namespace kelm::client
