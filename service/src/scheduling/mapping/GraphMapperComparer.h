#pragma once

#include <algorithm>
#include <ostream>
#include <vector>

namespace kelm {

// Orders items by id, for the dumps only: ids start again from 0 and may then repeat.
struct GraphMapperComparer {
    template <class Item>
    bool operator()(const Item* left, const Item* right) const {
        return left->id < right->id;
    }
};

// One line per item, in order of ids; equal ids keep their order.
template <class Item>
void dumpById(std::ostream& out, std::vector<Item*> items) {
    std::stable_sort(items.begin(), items.end(), GraphMapperComparer());
    for (const Item* item : items) out << item->dump() << "\n";
}

}  // namespace kelm
