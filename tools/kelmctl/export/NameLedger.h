#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <string>

namespace kelm::ctl {

// What is kept by the names that clients choose. A name keeps its place until an hour after it was
// last seen, and there are 128 places: whoever makes up new names neither makes this grow, nor
// brings a system that reads it more than so many new series an hour.
//
// Threads: one.
template <class Value>
class NameLedger {
 public:
    using Time = std::chrono::steady_clock::time_point;

    // Null: there is no place; nor is there one for the empty name.
    Value* see(const std::string& name, Time now) {
        auto entry = m_entries.find(name);
        if (entry == m_entries.end()) {
            if (name.empty() || m_entries.size() >= kPlaces) return nullptr;
            entry = m_entries.emplace(name, Entry{}).first;
        }
        entry->second.seen = now;
        return &entry->second.value;
    }

    // Gives places free.
    void forget(Time now) {
        std::erase_if(m_entries,
                      [now](const auto& entry) { return now - entry.second.seen > kKept; });
    }

    // Adds all to a map.
    void copyTo(std::map<std::string, Value>& all) const {
        for (const auto& [name, entry] : m_entries) all.emplace(name, entry.value);
    }

 private:
    static constexpr size_t kPlaces = 128;
    static constexpr std::chrono::hours kKept{1};

    struct Entry {
        Value value;
        Time seen;
    };
    std::map<std::string, Entry> m_entries;
};

}  // namespace kelm::ctl
