#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/gateway/Inference.h"
#include "tools/gateway/MemoryBudget.h"
#include "tools/gateway/rest/HttpExchange.h"
#include "tools/gateway/rest/InferBody.h"
#include "tools/gateway/rest/InferReply.h"
#include "utils/NonCopyable.h"

namespace kelm::gateway {

// A request to infer, from its head to its answer: the JSON part, then the raw tensors into a slot,
// then the task.
//
// Threads: the connection's. Owns: the inference, and its share of the memory for texts, until the
// answer is written.
class InferExchange : public NonCopyable, public std::enable_shared_from_this<InferExchange> {
 public:
    InferExchange(std::shared_ptr<HttpExchange> http, std::shared_ptr<Model> model,
                  MemoryBudget& textMemory);
    void begin();

 private:
    // Calls the step; a Failure becomes the answer.
    template <class Step>
    void attempt(Step step);
    void fail(const boost::system::error_code& error);

    void readJson();
    void onJson();
    void claim(const InferBody::Input& input);
    void requireRest(const InferBody& body) const;
    void readTensors(size_t next);
    void run();
    void onEnd(const TaskEnd& end);

    const Inference::Clock::time_point m_begun = Inference::Clock::now();
    const std::shared_ptr<HttpExchange> m_http;
    const std::shared_ptr<Model> m_model;
    MemoryBudget::Hold m_textMemory;
    std::optional<size_t> m_jsonBytes;  // nothing: all of the body
    std::string m_json;
    Inference::Wish m_wish{};
    std::optional<InferReply> m_reply;
    std::shared_ptr<Inference> m_inference;
    std::vector<std::span<std::byte>> m_raw;  // where the rest of the body goes, in its order
};

}  // namespace kelm::gateway
