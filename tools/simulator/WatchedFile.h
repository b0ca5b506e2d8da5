#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

namespace kelm::simulator {

// The path of a file in the directory that the environment variable KELM_SIM_DIR names, by which
// the simulator and the programs that steer it talk; empty without it.
std::string simulatorFile(const std::string& name);

// Adds a line to the file "events" there; nothing happens without the directory.
void tellEvent(const std::string& line);

// The lines of a file, read again when it has changed: what is written before a call counts in it.
//
// Threads: one at a time.
class WatchedFile {
 public:
    explicit WatchedFile(std::string path) : m_path(std::move(path)) {}

    // The lines without blank ones, if the file has changed since the last look; none without it.
    std::optional<std::vector<std::string>> poll();
    // Whether the file was there at the last look.
    bool exists() const { return m_seen.st_ino != 0; }

 private:
    bool hasChanged();

    const std::string m_path;
    struct stat m_seen {};
};

}  // namespace kelm::simulator
