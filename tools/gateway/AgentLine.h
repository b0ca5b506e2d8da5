#pragma once

#include <cstdint>
#include <string>

namespace kelm::gateway {

// What a balancer is told of this gateway.
struct AgentState {
    bool isDraining = false;
    std::string whyNot = {};  // it cannot run a task; empty: it can
    uint32_t devices = 0;     // that run its models
    uint64_t window = 0;      // tasks that the service takes of the model with the largest one
    uint64_t waiting = 0;     // requests beyond the windows of their models
};

// The words for HAProxy's agent check, with the end of the line: the weight is 10 % for each
// device, less when requests wait.
std::string agentLine(const AgentState& state);

}  // namespace kelm::gateway
