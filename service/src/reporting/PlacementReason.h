#pragma once

namespace kelm {

// Why a device scheduler decides as it does.
enum class PlacementReason {
    Demand,      // follows the load
    Starving,    // tasks, or its creator, wait for a graph without a device
    LostDevice,  // its device was lost
    Reset,       // its device was reset
    Cache,       // where the device holds it already
    ClientGone,  // nobody uses it any more
    Tag,         // by the quota of its tag
    Stream,      // by its stream
};
constexpr int kPlacementReasons = 8;

// What a graph without a place would need; `Nothing` where more of something would not help.
enum class PlacementLack { Nothing, Slots, Memory, Quota, Devices };

}  // namespace kelm
