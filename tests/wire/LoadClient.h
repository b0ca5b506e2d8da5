#pragma once

#include <atomic>
#include <future>
#include <string>
#include <vector>

#include "tests/wire/WireClient.h"

namespace kelm {

// What the clients of a load tell each other. Any thread.
struct LoadBoard {
    std::atomic<uint64_t> done{0};
    std::atomic<uint64_t> refused{0};
    std::atomic<bool> stop{false};  // ends the loads that have no count
};

struct LoadPlan {
    std::string name = "load";
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

    // What run() tells when the service has closed the connection.
    static constexpr const char* kLost = "the connection ended";

 protected:
    // The id of the graph, or 0.
    virtual uint64_t createGraph(const std::string& graph) {
        return m_raw.createGraph({graph, graph}).graphId;
    }
    // Submits a task on the graph with the index.
    virtual bool send(KelmMsgReqInferTask request, size_t) { return m_raw.send(request); }
    // What is wrong with the result of a task that has ended well, or nothing.
    virtual std::string checkResult(uint64_t) { return {}; }

    WireClient& raw() { return m_raw; }
    const LoadPlan& plan() const { return m_plan; }

 private:
    struct Exchange {
        bool answered = false;
        bool accepted = false;
        bool done = false;
        uint64_t taskId = 0;
    };

    bool mayStart() const;
    void submit();
    WireMessage receive() const;
    // These throw what is wrong with the message.
    void take(const WireMessage& message);
    void takeAnswer(const KelmMsgRspInferTask& answer);
    template <class Done>
    void takeDone(const Done& message, uint64_t sequence, int32_t status);
    void leave();

    const LoadPlan m_plan;
    LoadBoard& m_board;
    WireClient m_raw;
    std::vector<uint64_t> m_graphIds;
    std::vector<Exchange> m_exchanges;  // by reqSeqNo, from 1
    uint64_t m_inFlight = 0;
};

// Load clients at work, each on a thread of its own.
class Load {
 public:
    ~Load() { m_board.stop = true; }

    void start(const std::string& path, const LoadPlan& plan) {
        m_ends.push_back(std::async(std::launch::async, [this, path, plan] {
            return LoadClient(path, plan, m_board).run();
        }));
    }
    // What each has to say in the end, once; nothing for one that is content.
    std::string wait() {
        std::string all;
        for (auto& end : m_ends) all += end.get();
        m_ends.clear();
        return all;
    }
    std::string finish() {
        m_board.stop = true;
        return wait();
    }
    uint64_t done() const { return m_board.done; }
    uint64_t refused() const { return m_board.refused; }

 private:
    LoadBoard m_board;
    std::vector<std::future<std::string>> m_ends;
};

}  // namespace kelm
