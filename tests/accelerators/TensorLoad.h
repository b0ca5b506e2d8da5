#pragma once

#include "accelerators/SharedTensor.h"
#include "tests/wire/LoadClient.h"
#include "tools/simulator/Model.h"

namespace kelm {

// A load client on a thread of its own, from the start on, whose tasks have tensors, and that
// computes what each result must be.
class TensorLoad : private LoadBoard, private LoadClient {
 public:
    // The wish says which devices it asks for.
    TensorLoad(const std::string& path, const LoadPlan& plan, GraphWish wish = {})
        : LoadClient(path, plan, *this),
          m_wish(std::move(wish)),
          m_end(std::async(std::launch::async, [this] { return run(); })) {}
    ~TensorLoad() override { hangUp(); }

    uint64_t done() const { return LoadBoard::done; }
    // Whether it gets so many more results in time.
    bool getsOn(uint64_t more = 50) const {
        const uint64_t goal = done() + more;
        const auto ended = [this] { return m_end.wait_for(1ms) == std::future_status::ready; };
        return eventually([&] { return done() >= goal || ended(); }, kPatience) && done() >= goal;
    }
    // Submits no more. Empty once all is done, or the first thing that was wrong.
    std::string finish() {
        stop = true;
        return m_end.get();
    }
    void hangUp() { raw().interrupt(); }

 private:
    // With a reset on its way a graph may have to wait for some passes of the scheduler.
    static constexpr std::chrono::seconds kPatience{60};

    struct Task {
        Task(const simulator::Model& its, KelmBufferType type)
            : model(its), input(type, its.inputSize), output(type, its.outputSize) {}

        const simulator::Model& model;
        SharedTensor input;
        SharedTensor output;
    };

    uint64_t createGraph(const std::string& graph) override {
        const auto* const bytes = reinterpret_cast<const uint8_t*>(graph.data());
        m_models.push_back(simulator::Model::parse({bytes, graph.size()}).value());
        m_wish.blob = graph;
        m_wish.name = plan().name;
        (void)raw().sendCreateGraph(m_wish);
        const auto answer = raw().receive(kPatience);
        return answer ? answer->as<KelmMsgRspCreateGraph>().graphId : 0;
    }
    bool send(KelmMsgReqInferTask request, size_t graph) override {
        const uint64_t sequence = request.head.reqSeqNo;
        const auto type = sequence / 2 % 2 == 0 ? KELM_BUFFER_ION : KELM_BUFFER_SHARE_MEMORY;
        Task& task = m_running.try_emplace(sequence, m_models[graph], type).first->second;
        std::ranges::generate(task.input.bytes(), [&] { return static_cast<uint8_t>(m_random()); });
        std::vector<int> descriptors;
        task.input.attach(request, KELM_FD_INPUT, descriptors);
        task.output.attach(request, KELM_FD_OUTPUT, descriptors);
        return raw().send(request, descriptors);
    }
    std::string checkResult(uint64_t sequence) override {
        auto ended = m_running.extract(sequence);
        Task& task = ended.mapped();
        std::vector<uint8_t> expected(task.model.outputSize);
        task.model.infer(task.input.bytes(), expected);
        if (!std::ranges::equal(task.output.bytes(), expected)) return "wrong result";
        return task.output.isReachable() ? "" : "its name was taken away";
    }

    GraphWish m_wish;
    std::minstd_rand m_random;
    std::vector<simulator::Model> m_models;
    std::map<uint64_t, Task> m_running;  // by reqSeqNo
    std::future<std::string> m_end;
};

}  // namespace kelm
