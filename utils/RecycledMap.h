#pragma once

#include <cstddef>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kelm {

// A hash map that keeps the nodes of erased entries for the next ones, so that entries which are
// inserted and erased at a steady rate allocate nothing. Not thread-safe.
template <class Key, class Value>
class RecycledMap {
 public:
    using Map = std::unordered_map<Key, Value>;

    // Null if absent; valid until the entry is erased.
    Value* find(const Key& key) {
        const auto found = m_map.find(key);
        return found != m_map.end() ? &found->second : nullptr;
    }

    const Value* find(const Key& key) const {
        const auto found = m_map.find(key);
        return found != m_map.end() ? &found->second : nullptr;
    }

    // The key must be absent.
    void insert(const Key& key, Value value) {
        if (m_spareNodes.empty()) {
            m_map.emplace(key, std::move(value));
            return;
        }
        auto node = std::move(m_spareNodes.back());
        m_spareNodes.pop_back();
        node.key() = key;
        node.mapped() = std::move(value);
        m_map.insert(std::move(node));
    }

    // The value, which is erased; none if absent.
    std::optional<Value> take(const Key& key) {
        auto node = m_map.extract(key);
        if (!node) return std::nullopt;
        std::optional<Value> value(std::exchange(node.mapped(), Value()));
        if (m_spareNodes.size() < kSpareNodes) m_spareNodes.push_back(std::move(node));
        return value;
    }

    bool erase(const Key& key) { return take(key).has_value(); }

    typename Map::iterator begin() { return m_map.begin(); }
    typename Map::iterator end() { return m_map.end(); }
    typename Map::const_iterator begin() const { return m_map.begin(); }
    typename Map::const_iterator end() const { return m_map.end(); }
    size_t size() const { return m_map.size(); }

 private:
    static constexpr size_t kSpareNodes = 1024;  // more than these, as after a burst, are freed

    Map m_map;
    std::vector<typename Map::node_type> m_spareNodes;
};

}  // namespace kelm
