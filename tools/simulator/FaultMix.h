#pragma once

#include <cstddef>
#include <random>
#include <string>
#include <vector>

namespace kelm::simulator {

// Contents of the control file, one after the other, with faults on the road of a task: every call
// of it, in time with every status. Most are passing ones; now and then one means a lost device.
// The same seed gives the same sequence.
//
// Threads: one.
class FaultMix {
 public:
    FaultMix(unsigned seed, std::vector<std::string> devices);

    std::string next();

 private:
    struct Fault {
        const char* verb;
        const char* function;
        bool hasDevice;
        int status;
    };
    // All faults, in a random order that is another one after each turn.
    struct Deck {
        std::vector<Fault> faults;
        size_t used = 0;
    };

    static Deck makeDeck(const std::vector<int>& statuses);
    const Fault& draw(Deck& deck);
    std::string makeLine(const Fault& fault, long count);
    size_t below(size_t limit) { return m_random() % limit; }

    const std::vector<std::string> m_devices;
    std::mt19937 m_random;
    Deck m_passing;
    Deck m_fatal;
    unsigned long m_lines = 0;
};

}  // namespace kelm::simulator
