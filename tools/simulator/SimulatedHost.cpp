#include "tools/simulator/SimulatedHost.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace kelm::simulator {

namespace {

constexpr const char* kResetEvent = "reset ";

}  // namespace

// All files are there before the first device: without a list of the bus every name could be
// opened.
SimulatedHost::SimulatedHost(std::string directory, std::chrono::milliseconds returnAfter)
    : m_directory(std::move(directory)), m_returnAfter(returnAfter) {
    std::filesystem::create_directories(m_directory);
    replaceFile("events", "");
    order("");
    writeBus();
}

// In one step, so that no reader sees half of it.
void SimulatedHost::replaceFile(const std::string& name, const std::string& text) const {
    const std::string path = m_directory + "/" + name;
    std::ofstream file(path + ".new", std::ios::trunc);
    file << text << std::flush;
    if (!file) throw std::runtime_error("cannot write " + path);
    std::filesystem::rename(path + ".new", path);
}

void SimulatedHost::order(const std::string& lines) { replaceFile("control", lines); }

void SimulatedHost::writeBus() const {
    std::string lines;
    for (const auto& [name, address] : m_addresses) {
        lines += name + " " + std::to_string(address) + "\n";
    }
    replaceFile("bus", lines);
}

// The libraries know of a change before the bus tells of it.
void SimulatedHost::plug(const std::string& name, int subclass) {
    UsbBus::checkPlace(name);
    if (m_addresses.contains(name)) return;
    m_away.erase(name);
    m_addresses[name] = ++m_lastAddress;
    m_subclasses[name] = subclass;
    writeBus();
    m_bus.plug({name, kVendor, kProduct, subclass});
}

bool SimulatedHost::unplug(const std::string& name) {
    const bool wasAway = m_away.erase(name) > 0;
    if (m_addresses.erase(name) == 0) return wasAway;
    writeBus();
    return m_bus.unplug(name);
}

// A line without its end is still being written, and is read by the next call.
std::vector<std::string> SimulatedHost::takeEvents() {
    std::vector<std::string> events;
    std::ifstream file(m_directory + "/events");
    file.seekg(static_cast<std::streamoff>(m_eventsRead));
    for (std::string line; std::getline(file, line) && !file.eof();) {
        m_eventsRead += line.size() + 1;
        events.push_back(std::move(line));
    }
    for (std::string& event : events) {
        if (event.starts_with(kResetEvent)) event = takeReset(event);
    }
    bringBack();
    return events;
}

// A reset takes away the device that it was of, and none that has its place by now: that one would
// leave and return behind the back of the test that has just plugged it in.
std::string SimulatedHost::takeReset(const std::string& event) {
    std::istringstream words(event.substr(std::string(kResetEvent).size()));
    std::string name;
    int address = 0;
    words >> name >> address;
    const auto found = m_addresses.find(name);
    if (found != m_addresses.end() && found->second == address) {
        (void)unplug(name);
        if (m_returnAfter.count() >= 0) m_away[name] = Clock::now() + m_returnAfter;
    }
    return kResetEvent + name;
}

void SimulatedHost::bringBack() {
    // Collected first: plug() takes the name out of the list that is walked.
    std::vector<std::string> due;
    for (const auto& [name, time] : m_away) {
        if (time <= Clock::now()) due.push_back(name);
    }
    for (const std::string& name : due) plug(name, m_subclasses[name]);
}

std::vector<std::string> SimulatedHost::environment(const std::string& libraries) const {
    const char* bus = std::getenv("UMOCKDEV_DIR");
    return {"LD_PRELOAD=libumockdev-preload.so.0", "LD_LIBRARY_PATH=" + libraries,
            "KELM_SIM_DIR=" + m_directory, std::string("UMOCKDEV_DIR=") + (bus ? bus : "")};
}

}  // namespace kelm::simulator
