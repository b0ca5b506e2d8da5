#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <set>
#include <string>

#include "accelerators/SharedTensor.h"
#include "fakes/Eventually.h"

namespace kelm {

// What a process holds of the system, as /proc tells.
struct Footprint {
    size_t descriptors = 0;
    size_t threads = 0;
    size_t mappings = 0;  // of memory files and shared memory objects

    static Footprint of(int pid) {
        namespace fs = std::filesystem;
        const std::string process = "/proc/" + std::to_string(pid);
        const auto entries = [](const std::string& directory) {
            const fs::directory_iterator all(directory);
            return static_cast<size_t>(std::distance(begin(all), end(all)));
        };
        Footprint result{entries(process + "/fd"), entries(process + "/task"), 0};
        std::ifstream maps(process + "/maps");
        for (std::string line; std::getline(maps, line);) {
            const bool shared = line.find("/dev/shm/") != std::string::npos ||
                                line.find("/memfd:") != std::string::npos;
            if (shared) ++result.mappings;
        }
        return result;
    }
    // Once it has not changed for a while.
    static Footprint settled(int pid) {
        using Clock = std::chrono::steady_clock;
        constexpr std::chrono::milliseconds kWhile{300};
        Footprint last = of(pid);
        Clock::time_point since = Clock::now();
        (void)eventually([&] {
            if (const Footprint now = of(pid); now != last) {
                last = now;
                since = Clock::now();
            }
            return Clock::now() - since > kWhile;
        });
        return last;
    }

    bool operator==(const Footprint&) const = default;
    bool fitsInto(const Footprint& other) const {
        return descriptors <= other.descriptors && threads <= other.threads &&
               mappings <= other.mappings;
    }
    friend std::ostream& operator<<(std::ostream& out, const Footprint& footprint) {
        return out << footprint.descriptors << " descriptors, " << footprint.threads << " threads, "
                   << footprint.mappings << " mappings";
    }
};

// The names of shared memory objects, without those of other clients on the machine.
inline std::set<std::string> sharedMemoryNames() {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
        const std::string name = entry.path().filename();
        if (!name.starts_with("kelm-") || name.starts_with(SharedTensor::namePrefix())) {
            names.insert(name);
        }
    }
    return names;
}

}  // namespace kelm
