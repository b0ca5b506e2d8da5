#pragma once

#include <memory>
#include <vector>

#include "tools/gateway/Inference.h"
#include "tools/gateway/rest/HttpReply.h"
#include "tools/gateway/rest/InferBody.h"

namespace kelm::gateway {

// What a client wants of the outputs, and the answer that has it.
class InferReply {
 public:
    // Throws a Failure if there is no such output, or it has no JSON form and is wanted so.
    InferReply(const InferBody& body, const ModelDescription& model);

    // After a good end. Raw outputs stay in the inference's slot: the caller makes itself the
    // owner.
    HttpReply make(const Inference& inference) const;

 private:
    struct Wanted {
        const TensorDescription* tensor;  // the model's
        bool isRaw;
    };
    void add(const TensorDescription& tensor, bool isRaw);

    const std::string m_id;
    std::vector<Wanted> m_wanted;
};

}  // namespace kelm::gateway
