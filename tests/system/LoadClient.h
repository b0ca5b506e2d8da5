#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "fakes/RawClient.h"

namespace kelm {

// What the processes of a load tell each other.
struct LoadBoard {
    std::atomic<uint64_t> done{0};
    std::atomic<uint64_t> refused{0};
    std::atomic<bool> stop{false};  // ends the loads that have no count
};

struct LoadPlan {
    std::string name;
    uint16_t apiMajorVersion = 2;
    uint64_t count = 0;  // of tasks; 0 for as many as fit until the board says stop
    uint64_t depth = 12;
    std::vector<std::string> graphs{"first graph", "second graph", "third graph"};
};

// A client with many tasks under way that keeps books: each request has one create answer and, if
// it was accepted, one done message behind it, and nothing else comes.
class LoadClient {
 public:
    LoadClient(const std::string& path, LoadPlan plan, LoadBoard& board)
        : m_plan(std::move(plan)), m_board(board), m_raw(path) {}
    virtual ~LoadClient() = default;

    // Empty, or the first thing that was wrong.
    std::string run();

    // What run() tells when the service has gone.
    static constexpr const char* kLost = "the connection ended";

 protected:
    // The id of the graph, or 0.
    virtual uint64_t createGraph(const std::string& graph) {
        return m_raw.createGraph(m_id, graph.c_str(), graph);
    }
    // Submits a task on the graph with the index.
    virtual bool send(KelmMsgReqInferTask request, size_t) { return m_raw.send(request); }
    // What is wrong with the result of a task that has ended well, or nothing.
    virtual std::string checkResult(uint64_t) { return {}; }

    RawClient& raw() { return m_raw; }
    uint64_t id() const { return m_id; }
    const LoadPlan& plan() const { return m_plan; }

 private:
    struct Exchange {
        bool answered = false;
        bool accepted = false;
        bool done = false;
        uint64_t taskId = 0;
    };

    std::string setUp();
    bool mayStart() const;
    bool submit();
    // Empty, or what is wrong with the message.
    std::string take(const RawMessage& message);
    std::string takeAnswer(const KelmMsgRspInferTask& answer);
    template <class Done>
    std::string takeDone(const Done& message, uint64_t sequence, int32_t status);
    Exchange* find(uint64_t sequence);
    std::string leave();

    const LoadPlan m_plan;
    LoadBoard& m_board;
    RawClient m_raw;
    uint64_t m_id = 0;
    std::vector<uint64_t> m_graphIds;
    std::vector<Exchange> m_exchanges;  // by reqSeqNo, from 1
    uint64_t m_inFlight = 0;
};

}  // namespace kelm
