#include "tools/gateway/grpc/InferMessage.h"

#include <grpcpp/support/slice.h>

#include "tools/gateway/Failure.h"
#include "tools/gateway/grpc/Contents.h"

namespace kelm::gateway {
namespace {

// Changes bytes, cuts some out and puts others in twice.
std::string mutate(std::string text, std::mt19937& random) {
    for (auto count = 1 + random() % 3; count > 0 && !text.empty(); --count) {
        const size_t at = random() % text.size();
        if (random() % 2 == 0) {
            text[at] = static_cast<char>(random());
        } else {
            text.replace(at, random() % 8, text.substr(random() % text.size(), random() % 8));
        }
    }
    return text;
}

// A request with all datatypes, each with two elements, and two raw contents.
std::string makeMessage() {
    inference::ModelInferRequest request;
    request.set_model_name("m");
    (*request.mutable_parameters())["timeout"].set_int64_param(5);
    request.add_outputs()->set_name("o");
    for (size_t type = 0; type <= static_cast<size_t>(Datatype::kBytes); ++type) {
        const DatatypeInfo& info = infoOf(static_cast<Datatype>(type));
        auto& input = *request.add_inputs();
        input.set_name("i");
        input.set_datatype(std::string(info.name));
        input.add_shape(2);
        const std::string bytes(info.bytes > 0 ? 2 * info.bytes : 8, '\0');
        if (!info.hasJson) continue;
        appendContents(*input.mutable_contents(), static_cast<Datatype>(type),
                       std::as_bytes(std::span(bytes)));
    }
    for (const size_t size : {3, 200}) request.add_raw_input_contents(std::string(size, 'r'));
    return request.SerializeAsString();
}

grpc::ByteBuffer cutIntoSlices(std::string_view text, std::mt19937& random) {
    std::vector<grpc::Slice> slices;
    while (!text.empty()) {
        const size_t length = std::min<size_t>(text.size(), 1 + random() % 64);
        slices.emplace_back(text.data(), length);
        text.remove_prefix(length);
    }
    return {slices.data(), slices.size()};
}

// What is read is what the generated parser makes of all of it.
TEST(InferMessageTest, MutationIsReadAsTheGeneratedParserDoesOrRefused) {
    const std::string message = makeMessage();
    std::mt19937 random(7);
    int refused = 0;
    for (int i = 0; i < 20000; ++i) {
        const std::string bytes = i == 0 ? message : mutate(message, random);
        grpc::ByteBuffer buffer = cutIntoSlices(bytes, random);
        try {
            InferMessage read = InferMessage::read(buffer, 4096);
            for (const auto& input : read.request.inputs()) {
                const auto type = findDatatype(input.datatype());
                if (!type || !infoOf(*type).hasJson) continue;
                const std::string elements = readContents(input.contents(), "i", *type);
                inference::InferTensorContents again;
                appendContents(again, *type, std::as_bytes(std::span(elements)));
                EXPECT_EQ(countContents(again), countContents(input.contents()));
            }
            for (const RawContent& each : read.raw) {
                std::string& raw = *read.request.add_raw_input_contents();
                raw.resize(each.bytes);
                each.copyTo(std::as_writable_bytes(std::span(raw)));
            }
            inference::ModelInferRequest whole;
            ASSERT_TRUE(whole.ParseFromString(bytes));
            EXPECT_EQ(whole.SerializeAsString(), read.request.SerializeAsString());
        } catch (const Failure&) {
            ASSERT_NE(i, 0);
            ++refused;
        }
    }
    EXPECT_GT(refused, 1000);
    EXPECT_LT(refused, 19000);
}

}  // namespace
}  // namespace kelm::gateway
