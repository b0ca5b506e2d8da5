#pragma once

namespace kelm {

// Orders items by id, for the dumps only: ids start again from 0 and may then repeat.
struct GraphMapperComparer {
    template <class Item>
    bool operator()(const Item* left, const Item* right) const {
        return left->id < right->id;
    }
};

}  // namespace kelm
