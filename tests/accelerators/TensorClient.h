#pragma once

#include <future>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "accelerators/SharedTensor.h"
#include "tests/wire/LoadClient.h"
#include "tools/simulator/Model.h"

namespace kelm {

// Which devices a client's graphs ask for, and how its tensors reach the service.
struct TensorPlan {
    int32_t subclass = 0;
    std::string streamId;
    std::optional<KelmBufferType> type{};  // without one there are both
    std::string tag{};
};

// A load client whose tasks have tensors, and that computes what each result must be.
class TensorClient : public LoadClient {
 public:
    TensorClient(const std::string& path, const LoadPlan& plan, LoadBoard& board,
                 const TensorPlan& tensors);

    // Ends run(), at the latest with what it waits for.
    void hangUp() { raw().interrupt(); }

 protected:
    uint64_t createGraph(const std::string& graph) override;
    bool send(KelmMsgReqInferTask request, size_t graph) override;
    std::string checkResult(uint64_t sequence) override;

 private:
    struct Slot {
        std::unique_ptr<SharedTensor> input;
        std::unique_ptr<SharedTensor> output;
    };
    struct Graph {
        simulator::Model model;
        std::vector<Slot> free;
    };
    struct Running {
        size_t graph;
        Slot slot;
    };

    const TensorPlan m_tensors;
    std::minstd_rand m_random;
    std::vector<Graph> m_graphs;
    std::map<uint64_t, Running> m_running;  // by reqSeqNo
};

// A TensorClient on a thread of its own, from the start on.
class TensorLoad {
 public:
    TensorLoad(const std::string& path, const LoadPlan& plan, const TensorPlan& tensors = {});
    ~TensorLoad();  // hangs up

    uint64_t done() const { return m_board.done; }
    // Whether it gets so many more results in time.
    bool getsOn(uint64_t more = 50) const;
    // Submits no more. Empty once all is done and the client has left, or the first thing that was
    // wrong. Its tensors are destroyed then.
    std::string finish();
    void hangUp() { m_client->hangUp(); }

 private:
    LoadBoard m_board;
    std::unique_ptr<TensorClient> m_client;
    std::future<std::string> m_end;
};

}  // namespace kelm
