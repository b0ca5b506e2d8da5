#include <list>
#include <numeric>
#include <optional>

#include "accelerators/AcceleratorFixture.h"
#include "accelerators/TaskClient.h"
#include "accelerators/TensorClient.h"
#include "fakes/OtherUser.h"
#include "tools/simulator/Model.h"

namespace kelm {
namespace {

using simulator::Model;
using Bytes = std::vector<uint8_t>;

constexpr const char* kGraph = "KELMSIM input=16 output=100 times=6 debug=40\ngraph";
constexpr uint32_t kTimeTaken = 1;
constexpr uint32_t kThermal = 2;
constexpr uint32_t kDebugInfo = 4;
constexpr uint8_t kPoison = 0xa5;

template <class T>
void append(Bytes& bytes, const T& values) {
    const auto* const first = reinterpret_cast<const uint8_t*>(std::data(values));
    bytes.insert(bytes.end(), first, first + std::size(values) * sizeof(*std::data(values)));
}

// The blocks one behind the other, cut or filled up to the size of the buffer.
Bytes expectedAux(const Model& model, uint32_t flags, size_t size, float celsius) {
    Bytes all;
    std::vector<float> times(model.times);
    model.timeTaken(times);
    if (flags & kTimeTaken) append(all, times);
    float thermal[simulator::kThermalFloats];
    simulator::thermalStats(celsius, thermal);
    if (flags & kThermal) append(all, thermal);
    Bytes info(model.debugSize);
    model.debugInfo(info);
    if (flags & kDebugInfo) append(all, info);
    all.resize(size, kPoison);
    return all;
}

class TensorPathsTest : public AcceleratorFixture {
 protected:
    // With each set of flags and a buffer that is large enough, and such that cut each of the
    // blocks.
    void checkAll(KelmBufferType type, KelmBufferType auxType) {
        const std::string graph = kGraph;
        const Model model =
            Model::parse({reinterpret_cast<const uint8_t*>(graph.data()), graph.size()}).value();
        TaskClient client(path(), graph);
        SharedTensor input(type, model.inputSize);
        SharedTensor output(type, model.outputSize);
        std::iota(input.bytes().begin(), input.bytes().end(), uint8_t{7});
        Bytes expected(model.outputSize);
        model.infer(input.bytes(), expected);
        for (uint32_t flags = 0; flags <= (kTimeTaken | kThermal | kDebugInfo); ++flags) {
            for (const size_t size : {200, 150, 70, 10}) {
                SCOPED_TRACE("flags " + std::to_string(flags) + " size " + std::to_string(size));
                SharedTensor aux(auxType, size);
                std::ranges::fill(aux.bytes(), kPoison);
                std::ranges::fill(output.bytes(), kPoison);
                ASSERT_EQ(client.infer(input, output, &aux, flags), KELM_OK);
                EXPECT_TRUE(std::ranges::equal(output.bytes(), expected));
                EXPECT_THAT(Bytes(aux.bytes().begin(), aux.bytes().end()),
                            ::testing::ElementsAreArray(expectedAux(model, flags, size, kCelsius)));
            }
        }
    }

    static constexpr float kCelsius = 61.0f;
};

TEST_F(TensorPathsTest, AuxiliaryBlocksHaveAnotherOrderOrCut) {
    plug("1.1");
    host().order("heat 1.1 61");
    const struct {
        const char* what;
        KelmBufferType type;
        KelmBufferType auxType;
    } rows[] = {
        {"descriptors", KELM_BUFFER_ION, KELM_BUFFER_ION},
        {"names", KELM_BUFFER_SHARE_MEMORY, KELM_BUFFER_SHARE_MEMORY},
        {"auxiliary by name", KELM_BUFFER_ION, KELM_BUFFER_SHARE_MEMORY},
        {"auxiliary by descriptor", KELM_BUFFER_SHARE_MEMORY, KELM_BUFFER_ION},
    };
    for (const std::string container : {"default", "system"}) {
        startService(R"("debug_settings": {"tensor_container": ")" + container + "\"}");
        for (const auto& row : rows) {
            SCOPED_TRACE(container + " " + row.what);
            checkAll(row.type, row.auxType);
        }
        endService();
    }
}

TEST_F(TensorPathsTest, NamedTensorsAreForThoseWhomTheirModeLetsIn) {
    if (!OtherUser::isPossible()) GTEST_SKIP() << "acting as another user needs root";
    plug("1.1");
    startService();
    OtherUser::letIn(path());
    const SharedTensor rootsInput(KELM_BUFFER_SHARE_MEMORY, 16);
    const SharedTensor rootsOutput(KELM_BUFFER_SHARE_MEMORY, 100);
    std::vector<std::unique_ptr<SharedTensor>> own;
    std::optional<TaskClient> other;
    OtherUser::run([&] {
        for (const size_t size : {16, 100}) {
            own.push_back(std::make_unique<SharedTensor>(KELM_BUFFER_SHARE_MEMORY, size));
        }
        other.emplace(path(), kGraph);
    });
    EXPECT_EQ(other->infer(rootsInput, *own[1]), KELM_ERROR_MAP_INPUT_FAILED);
    EXPECT_EQ(other->infer(*own[0], rootsOutput), KELM_ERROR_MAP_OUTPUT_FAILED);
    EXPECT_EQ(other->infer(*own[0], *own[1], &rootsOutput, kTimeTaken), KELM_ERROR_MAP_AUX_FAILED);
    EXPECT_EQ(other->infer(*own[0], *own[1]), KELM_OK);
    TaskClient root(path(), kGraph);
    EXPECT_EQ(root.infer(*own[0], rootsOutput), KELM_OK);
}

TEST_F(TensorPathsTest, ClientsGetResultsOfOthers) {
    for (const char* device : {"1.1", "1.2", "1.3.1"}) plug(device);
    for (const std::string container : {"default", "system"}) {
        SCOPED_TRACE(container);
        startService(R"("debug_settings": {"tensor_container": ")" + container + "\"}");
        std::list<TensorLoad> loads;
        for (const auto types : {TensorTypes::kDescriptors, TensorTypes::kNames,
                                 TensorTypes::kMixed, TensorTypes::kMixed}) {
            LoadPlan plan;
            plan.name = "client " + std::to_string(loads.size());
            plan.graphs = {"KELMSIM input=5000 output=777 micros=900\nshared by all",
                           "KELMSIM input=9 output=9000 micros=300\n" + plan.name};
            loads.emplace_back(path(), plan, TensorPlan{0, "", types});
        }
        for (TensorLoad& load : loads) EXPECT_TRUE(load.getsOn(300)) << lastLines();
        for (TensorLoad& load : loads) EXPECT_EQ(load.finish(), "");
        endService();
    }
}

}  // namespace
}  // namespace kelm
