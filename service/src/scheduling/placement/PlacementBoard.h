#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kelm {

// A placement that is being planned: which graph is on which device, and how the load of each graph
// spreads over its devices. Devices and graphs are indices in the order of creation.
//
// A graph on several devices is served wherever there is room, so its load is spread such that they
// are equally busy. Several graphs on a device share its speed.
class PlacementBoard {
 public:
    struct Share {
        size_t device = 0;
        double load = 0.0;
    };
    struct Device {
        double speed = 1.0;
        double load = 0.0;
        uint32_t slots = 1;
        uint32_t memoryLeft = 0;
        std::vector<size_t> graphs;  // in the order in which they came

        double busy() const { return load / speed; }
        bool hasFreeSlot() const { return graphs.size() < slots; }
    };
    struct Graph {
        double demand = 0.0;  // seconds of work a second
        uint32_t memory = 0;
        std::vector<Share> places;
    };

    void clear();
    void addDevice(double speed, uint32_t slots, uint32_t memory);
    void addGraph(double demand, uint32_t memory);

    const std::vector<Device>& devices() const { return m_devices; }
    const std::vector<Graph>& graphs() const { return m_graphs; }
    bool holds(size_t device, size_t graph) const;
    // A slot and memory for one more graph that is not there yet.
    bool fits(size_t device, size_t graph) const;
    // The same once `leaving` has left.
    bool fitsInPlaceOf(size_t device, size_t graph, size_t leaving) const;
    double loadOf(size_t graph, size_t device) const;

    // With `spread()`s of the graph.
    void put(size_t graph, size_t device);
    void putAll(size_t graph, const std::vector<size_t>& devices);
    void take(size_t graph, size_t device);
    // Spreads the graph's demand anew over its devices, beside the load of the others.
    void spread(size_t graph);
    // All graphs in turns, until they hardly change.
    void spreadAll();
    // What the load of the device costs, in seconds of work a second that wait or are lost; nothing
    // while it is well within its speed.
    double costOf(size_t device) const;

 private:
    void enter(size_t graph, size_t device);

    std::vector<Device> m_devices;
    std::vector<Graph> m_graphs;
    std::vector<Share> m_scratch;
};

}  // namespace kelm
