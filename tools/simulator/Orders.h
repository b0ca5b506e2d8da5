#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/simulator/WatchedFile.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm::simulator {

// What the control file tells the simulated libraries to do; the README lists its words. A file
// that changes while the libraries run is read again; an order whose line stays keeps its count.
//
// Threads: any. Locks: m_mutex is a leaf.
class Orders : public NonCopyable {
 public:
    // Reads the file "control". Never destroyed: a call that hangs may outlive static objects.
    static Orders& instance();
    explicit Orders(const std::string& path) : m_file(path) {}

    // Replaces the orders, as the file does; for a program that has the libraries within itself.
    void replace(const std::vector<std::string>& lines) EXCLUDES(m_mutex);

    // At the start of a call: waits as ordered. Returns the status to fail with, or 0. Calls
    // without a device have the name "-", calls without an option kNoOption.
    static constexpr int kNoOption = -1;
    int apply(const std::string& device, const char* function, int option = kNoOption)
        EXCLUDES(m_mutex);
    // When a read has taken a result out: the status to fail with although it is out, or 0.
    int lose(const std::string& device, const char* function) EXCLUDES(m_mutex);
    // What to add to the length that the call tells.
    unsigned int lie(const std::string& device, const char* function, int option) EXCLUDES(m_mutex);

    // The number behind an order about the state of a device.
    std::optional<long> temperature(const std::string& device) { return number("heat", device, 0); }
    std::optional<long> throttling(const std::string& device) { return number("heat", device, 1); }
    std::optional<long> memoryMb(const std::string& device) { return number("memory", device, 0); }
    // Milliseconds that a read or a write waits at most.
    std::optional<long> patience(const std::string& device) {
        return number("patience", device, 0);
    }
    bool isVanished(const std::string& device) EXCLUDES(m_mutex);

 private:
    struct Order {
        std::string line;  // with its comment, by which equal orders can be told apart
        std::string verb;
        std::string device;    // "*" for all
        std::string function;  // of fail, lose, lie, hang and slow; "*" for all
        int option = kNoOption;
        std::vector<long> numbers;
        long remaining = -1;  // calls that it still concerns, below 0 without end
        long every = 1;       // of those that it could concern it means each such one
        long seen = 0;

        bool concerns(const std::string& name) const { return device == "*" || device == name; }
        // Whether it is about this call, of which it then counts one.
        bool takeCall(const std::string& name, const std::string& called, int calledOption);
    };
    struct Delay {
        long millis = 0;
        int status = 0;
        std::string hang;  // the line of the order to hang on
    };

    static std::optional<Order> parse(const std::string& line);
    void refresh() REQUIRES(m_mutex);
    void replaceUnsafe(const std::vector<std::string>& lines) REQUIRES(m_mutex);
    // The number of the first order of the verb about this call, of which it counts one; or 0.
    int takeNumber(const char* verb, const std::string& device, const char* function, int option)
        EXCLUDES(m_mutex);
    Delay take(const std::string& device, const char* function, int option) EXCLUDES(m_mutex);
    bool stands(const std::string& line) EXCLUDES(m_mutex);
    std::optional<long> number(const char* verb, const std::string& device, size_t index)
        EXCLUDES(m_mutex);

    Mutex m_mutex;
    WatchedFile m_file GUARDED_BY(m_mutex);
    std::vector<Order> m_orders GUARDED_BY(m_mutex);
};

}  // namespace kelm::simulator
