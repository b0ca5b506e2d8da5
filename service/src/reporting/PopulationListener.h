#pragma once

namespace kelm {

// Port: the listener that counts what the service consists of at the moment. Any thread, also under
// the lock of the list that has changed; a call only counts.
class PopulationListener {
 public:
    // Positive for what comes, negative for what leaves.
    virtual void addDevices(int change) = 0;
    virtual void addClients(int change) = 0;

 protected:
    ~PopulationListener() = default;
};

}  // namespace kelm
