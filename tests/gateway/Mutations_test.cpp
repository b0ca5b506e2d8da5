#include "tools/gateway/Failure.h"
#include "tools/gateway/ModelDescription.h"
#include "tools/gateway/rest/InferBody.h"
#include "tools/gateway/rest/JsonTensor.h"

namespace kelm::gateway {
namespace {

const std::string kDescription =
    R"({"graph":"g","queue":3,"tag":"t","inputs":[{"name":"i","datatype":"FP32","shape":[2,-1],)"
    R"("bytes":64},{"name":"j","datatype":"BYTES","shape":[3],"bytes":9,"offset":64}],"outputs":)"
    R"([{"name":"o","datatype":"INT8","shape":[8]}]})";
const std::string kRequest =
    R"({"id":"x","parameters":{"timeout":5,"binary_data_output":true},"inputs":[{"name":"i",)"
    R"("datatype":"FP32","shape":[2,2],"data":[[1,2.5e3],[-3,4]]},{"name":"j","datatype":"BYTES",)"
    R"("shape":[1],"data":["\u00e4"]}],"outputs":[{"name":"o","parameters":{"binary_data":true}}]})";

// Cuts, doubles, swaps and changes bytes, and puts in words that parsers trip over.
std::string mutate(std::string text, std::mt19937& random) {
    static const std::vector<std::string> kWords{
        "-1", "1e999", "18446744073709551615", "[", "{", "null", "\"", "\xff", "\\u0000", "[[[]]]"};
    for (auto count = 1 + random() % 4; count > 0 && !text.empty(); --count) {
        const size_t at = random() % text.size();
        const size_t length = random() % 8;
        switch (random() % 4) {
            case 0:
                text.erase(at, length);
                break;
            case 1:
                text.insert(at, text.substr(random() % text.size(), length));
                break;
            case 2:
                text[at] = static_cast<char>(random());
                break;
            default:
                text.replace(at, length, kWords[random() % kWords.size()]);
        }
    }
    return text;
}

// A Failure is the only way out of what is wrong; the sanitizers see the rest.
TEST(MutationsTest, WhateverIsSentIsReadOrRefused) {
    std::mt19937 random(7);
    int refused = 0;
    for (int i = 0; i < 20000; ++i) {
        try {
            for (const auto& tensor :
                 ModelDescription::parse("m", mutate(kDescription, random)).inputs) {
                EXPECT_GT(tensor.bytes, 0U);
            }
            for (const auto& input : InferBody::parse(mutate(kRequest, random)).inputs) {
                const auto type = findDatatype(input.datatype);
                if (!type || input.data.is_null()) continue;
                const std::string bytes =
                    readJsonTensor(input.data, input.name, *type, input.shape);
                std::string text;
                appendJsonTensor(text, *type, std::as_bytes(std::span(bytes)));
                EXPECT_EQ(nlohmann::json::parse(text).size(), countElements(input.shape));
            }
        } catch (const Failure&) {
            ++refused;
        }
    }
    EXPECT_GT(refused, 1000);
    EXPECT_LT(refused, 20000);
}

}  // namespace
}  // namespace kelm::gateway
