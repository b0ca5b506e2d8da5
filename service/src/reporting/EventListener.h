#pragma once

namespace kelm {

struct ServiceEvent;

// Port: hears what happens to graphs, devices and clients. Any thread, also under its caller's
// locks: takes a leaf lock and waits for nothing.
class EventListener {
 public:
    virtual void record(const ServiceEvent& event) = 0;

 protected:
    ~EventListener() = default;
};

}  // namespace kelm
