#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kelm::ctl {

// Rows of one name are told apart by their order.
using RowKey = std::pair<std::string, size_t>;

// Numbers the rows of each name.
class RowKeys {
 public:
    RowKey next(const std::string& name) { return {name, m_seen[name]++}; }

 private:
    std::map<std::string, size_t> m_seen;
};

// The entries by name and order, borrowed.
template <class Entry>
std::map<RowKey, const Entry*> byName(const std::vector<Entry>& entries) {
    std::map<RowKey, const Entry*> result;
    RowKeys keys;
    for (const Entry& entry : entries) result.emplace(keys.next(entry.name), &entry);
    return result;
}

}  // namespace kelm::ctl
