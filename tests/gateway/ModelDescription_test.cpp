#include "tools/gateway/ModelDescription.h"

#include "tools/gateway/Failure.h"

namespace kelm::gateway {
namespace {

const std::string kTensor = R"({"name": "a", "datatype": "FP32", "shape": [2, 3]})";

std::string describe(const std::string& inputs, const std::string& more = "") {
    return R"({"graph": "g", "inputs": [)" + inputs +
           R"(], "outputs": [{"name": "o", "datatype": "UINT8", "shape": [8]}])" + more + "}";
}

TEST(ModelDescriptionTest, TensorsFollowOneAnotherUnlessTheySayWhere) {
    const auto model = ModelDescription::parse(
        "m", describe(kTensor + R"(, {"name": "b", "datatype": "BYTES", "shape": [1], "bytes": 10},
            {"name": "c", "datatype": "INT64", "shape": [-1, 2], "bytes": 32, "offset": 40})"));
    EXPECT_EQ(model.inputs[0].bytes, 24U);
    EXPECT_EQ(model.inputs[1].offset, 24U);
    EXPECT_EQ(model.inputs[2].offset, 40U);
    EXPECT_NO_THROW(model.requireFit(72, 8));
    EXPECT_THROW(model.requireFit(71, 8), Failure);
    EXPECT_THROW(model.requireFit(72, 7), Failure);
}

TEST(ModelDescriptionTest, MistakesAreRefusedWithTheirReason) {
    const auto tensor = [](const std::string& members) {
        return describe(R"({"name": "x", )" + members + "}");
    };
    std::string many = "{}", wide = "x";
    for (int i = 0; i < 1000000; ++i) {
        many += ",{}";
        wide += "\u00e9";
    }
    struct Row {
        std::string text;
        const char* reason;
    };
    const Row rows[] = {
        {"", "no JSON"},
        {"[]", "must be an object"},
        {R"({"graph": "g", "inputs": []})", "lacks 'outputs'"},
        {describe(""), "1 to 256 tensors"},
        {describe(many), "1 to 256 tensors"},  // in seconds, not in minutes
        {describe(kTensor, R"(, "windw": 1)"), "unknown key 'windw'"},
        {describe(kTensor, R"(, "graph": "h")"), "'graph' twice"},
        {describe(kTensor, ", \"" + wide + "\": 1"), "\u00e9...\u00e9"},
        {describe(kTensor, R"(, "priority": 16)"), "'priority' must be a whole number"},
        {describe(kTensor, R"(, "priority": -1)"), "'priority' must be a whole number"},
        {describe(kTensor, R"(, "queue": 1.5)"), "'queue' must be a whole number"},
        {describe(kTensor, R"(, "tag": "a\nb")"), "control characters"},
        {describe(kTensor + "," + kTensor), "two tensors 'a'"},
        {describe(kTensor + R"(, {"name": "b", "datatype": "BOOL", "shape": [1], "offset": 23})"),
         "overlap"},
        {tensor(R"("datatype": "FP31", "shape": [1])"), "no datatype 'FP31'"},
        {tensor(R"("datatype": "FP32", "shape": [0])"), "a dimension"},
        {tensor(R"("datatype": "FP32", "shape": [-2])"), "a dimension"},
        {tensor(R"("datatype": "FP32", "shape": [281474976710656, 281474976710656])"),
         "too many elements"},
        {tensor(R"("datatype": "FP32", "shape": [-1, -1], "bytes": 8)"), "more than one"},
        {tensor(R"("datatype": "FP32", "shape": [-1])"), "give its room"},
        {tensor(R"("datatype": "BYTES", "shape": [1])"), "give its room"},
        {tensor(R"("datatype": "FP32", "shape": [1], "bytes": 5)"), "4 bytes by its shape"},
        {R"({"graph": "g", "inputs": [)" + kTensor +
             R"(], "outputs": [{"name": "o", "datatype": "UINT8", "shape": [-1], "bytes": 8}]})",
         "has a variable dimension"},
        {std::string(40, '['), "nested too deep"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text.substr(0, 400));
        try {
            (void)ModelDescription::parse("m", row.text);
            ADD_FAILURE() << "was taken";
        } catch (const Failure& failure) {
            EXPECT_THAT(failure.what(), HasSubstr(row.reason));
        }
    }
}

}  // namespace
}  // namespace kelm::gateway
