#include "tools/simulator/FaultMix.h"

#include <algorithm>
#include <utility>

namespace kelm::simulator {

namespace {

struct Row {
    const char* verb;
    const char* function;
    bool hasDevice = true;
};

// The calls on the road of a task, options that are read with its result included.
constexpr Row kRows[] = {
    {"fail", "qxFifoGetOption"},         {"fail", "qxFifoWriteElem"},
    {"fail", "qxFifoWriteIonElem"},      {"fail", "qxGraphQueueInference"},
    {"fail", "qxFifoReadElem"},          {"lose", "qxFifoReadElem"},
    {"fail", "qxFifoReadIonElem"},       {"lose", "qxFifoReadIonElem"},
    {"fail", "qxGraphGetOption(1001)"},  {"fail", "qxGraphGetOption(1006)"},
    {"fail", "qxGraphGetOption(1011)"},  {"fail", "qxDeviceGetOption(2000)"},
    {"fail", "qxDeviceGetOption(2001)"}, {"fail", "ion_open", false},
    {"fail", "ion_import", false},       {"fail", "ion_get_info", false},
    {"fail", "ion_free", false},
};

// Those that the service takes for a lost device; for the ION calls they are like any other.
const std::vector<int> kFatal = {-2, -6, -8, -13, -126};
const std::vector<int> kPassing = {-1, -3, -4, -5, -7, -9, -10, -11, -12};

constexpr size_t kFaultsAtOnce = 6;
constexpr size_t kFatalEvery = 20;
// A fault that lasts meets one device for so many calls.
constexpr size_t kLastsEvery = 8;
constexpr long kLongest = 40;

}  // namespace

FaultMix::FaultMix(unsigned seed, std::vector<std::string> devices)
    : m_devices(std::move(devices)),
      m_random(seed),
      m_passing(makeDeck(kPassing)),
      m_fatal(makeDeck(kFatal)) {}

FaultMix::Deck FaultMix::makeDeck(const std::vector<int>& statuses) {
    Deck deck;
    for (const Row& row : kRows) {
        for (const int status : statuses) {
            deck.faults.push_back({row.verb, row.function, row.hasDevice, status});
        }
    }
    return deck;
}

// Every fault comes once before any comes again, as with a deck of cards.
const FaultMix::Fault& FaultMix::draw(Deck& deck) {
    const size_t index = deck.used++ % deck.faults.size();
    if (index == 0) std::ranges::shuffle(deck.faults, m_random);
    return deck.faults[index];
}

// The comment makes it another order than an equal one before it.
std::string FaultMix::makeLine(const Fault& fault, long count) {
    const std::string device = fault.hasDevice ? m_devices[below(m_devices.size())] : "-";
    return std::string(fault.verb) + " " + device + " " + fault.function + " " +
           std::to_string(fault.status) + " " + std::to_string(count) + " # " +
           std::to_string(++m_lines) + "\n";
}

std::string FaultMix::next() {
    std::string lines;
    for (size_t i = 0; i < kFaultsAtOnce; ++i) {
        const bool isFatal = below(kFatalEvery) == 0;
        const bool lasts = below(kLastsEvery) == 0;
        const long count = 1 + static_cast<long>(below(lasts ? kLongest : 3));
        lines += makeLine(draw(isFatal ? m_fatal : m_passing), count);
    }
    return lines;
}

}  // namespace kelm::simulator
