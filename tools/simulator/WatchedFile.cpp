#include "tools/simulator/WatchedFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "utils/UniqueFd.h"

namespace kelm::simulator {

namespace {

// A file that was replaced by renaming has another inode; one that was written to has another size
// or time.
bool isSame(const struct stat& a, const struct stat& b) {
    return a.st_ino == b.st_ino && a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

}  // namespace

std::string simulatorFile(const std::string& name) {
    const char* directory = std::getenv("KELM_SIM_DIR");
    return directory != nullptr && *directory != '\0' ? std::string(directory) + "/" + name : "";
}

void tellEvent(const std::string& line) {
    const std::string path = simulatorFile("events");
    if (path.empty()) return;
    const UniqueFd file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666));
    const std::string text = line + "\n";
    // In one write, so that the lines of several processes stay whole. A failure is ignored: there
    // is no other way to report it.
    [[maybe_unused]] const ssize_t written = ::write(file.get(), text.data(), text.size());
}

// A file that is taken away has changed, too.
bool WatchedFile::hasChanged() {
    if (m_path.empty()) return false;
    struct stat status {};
    if (::stat(m_path.c_str(), &status) != 0) status = {};
    const bool changed = !isSame(status, m_seen);
    m_seen = status;
    return changed;
}

// The times are read before the lines: a change in between is seen by the next look.
std::optional<std::vector<std::string>> WatchedFile::poll() {
    if (!hasChanged()) return std::nullopt;
    std::vector<std::string> lines;
    std::ifstream file(m_path);
    for (std::string line; std::getline(file, line);) {
        if (line.find_first_not_of(" \t\r") != std::string::npos) lines.push_back(line);
    }
    return lines;
}

}  // namespace kelm::simulator
