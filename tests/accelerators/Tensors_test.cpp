#include <deque>
#include <list>
#include <numeric>
#include <optional>

#include "accelerators/AcceleratorFixture.h"
#include "accelerators/TaskClient.h"
#include "fakes/OtherUser.h"
#include "tools/simulator/Model.h"

namespace kelm {
namespace {

using simulator::Model;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kDebugInfo = 4;
constexpr const char* kContainers[] = {"default", "system"};

class TensorsTest : public AcceleratorFixture {
 protected:
    static constexpr size_t kSize = 400000;  // of the tensors that shrink

    void startOn(const std::string& container) {
        startService(R"("debug_settings": {"tensor_container": ")" + container + "\"}");
    }
    bool isMapped(const std::string& name) const {
        std::ifstream maps("/proc/" + std::to_string(service().pid()) + "/maps");
        const std::string text{std::istreambuf_iterator<char>(maps), {}};
        return text.find(name) != std::string::npos;
    }
    TaskClient shrinkingClient() const {
        const std::string size = std::to_string(kSize);
        return {path(),
                "KELMSIM input=" + size + " output=" + size + " memory=3 micros=300\nshrinking"};
    }
    // The status of a task whose buffer of the role is shortened while it is mapped and in use.
    int32_t shrinkInUse(TaskClient& client, KelmBufferType type, KelmFdRole role) {
        const bool isInput = role == KELM_FD_INPUT;
        const std::string function = isInput ? "qxFifoWriteElem" : "qxFifoReadElem";
        const size_t before = eventCount("hang 1.1 " + function);
        host().order("hang * " + function);
        // In force when it has caught a call of the neighbour's.
        EXPECT_TRUE(waitEvent("hang 1.1 " + function, before + 1));
        const SharedTensor input(type, kSize);
        const SharedTensor output(type, kSize);
        EXPECT_TRUE(client.submit(input, output));
        const SharedTensor& shrunk = isInput ? input : output;
        EXPECT_TRUE(eventually([&] { return isMapped(shrunk.name()); })) << lastLines();
        shrunk.resize(role);  // to nothing or to a byte
        host().order("");
        return client.wait();
    }
};

TEST_F(TensorsTest, EachPathGivesTheResultAndTheAuxiliaryBlock) {
    plug("1.1");
    const std::string graph = "KELMSIM input=16 output=100 debug=40\ngraph";
    const Model model =
        Model::parse({reinterpret_cast<const uint8_t*>(graph.data()), graph.size()}).value();
    Bytes info(model.debugSize);
    model.debugInfo(info);
    for (const char* container : kContainers) {
        startOn(container);
        for (const auto type : {KELM_BUFFER_ION, KELM_BUFFER_SHARE_MEMORY}) {
            for (const auto auxType : {KELM_BUFFER_ION, KELM_BUFFER_SHARE_MEMORY}) {
                SCOPED_TRACE(std::string(container) + " " + std::to_string(type) + " " +
                             std::to_string(auxType));
                TaskClient client(path(), graph);
                SharedTensor input(type, model.inputSize);
                SharedTensor output(type, model.outputSize);
                SharedTensor aux(auxType, info.size());
                std::iota(input.bytes().begin(), input.bytes().end(), uint8_t{7});
                Bytes expected(model.outputSize);
                model.infer(input.bytes(), expected);
                ASSERT_EQ(client.infer(input, output, &aux, kDebugInfo), KELM_OK);
                EXPECT_TRUE(std::ranges::equal(output.bytes(), expected));
                EXPECT_TRUE(std::ranges::equal(aux.bytes(), info));
            }
        }
        endService();
    }
}

TEST_F(TensorsTest, NamedTensorsAreForThoseWhomTheirModeLetsIn) {
    if (!OtherUser::isPossible()) GTEST_SKIP() << "acting as another user needs root";
    constexpr const char* kGraph = "KELMSIM input=16 output=100\ngraph";
    plug("1.1");
    startService();
    OtherUser::letIn(path());
    const SharedTensor rootsInput(KELM_BUFFER_SHARE_MEMORY, 16);
    const SharedTensor rootsOutput(KELM_BUFFER_SHARE_MEMORY, 100);
    std::list<SharedTensor> own;
    std::optional<TaskClient> other;
    OtherUser::run([&] {
        for (const size_t size : {16, 100}) own.emplace_back(KELM_BUFFER_SHARE_MEMORY, size);
        other.emplace(path(), kGraph);
    });
    EXPECT_EQ(other->infer(rootsInput, own.back()), KELM_ERROR_MAP_INPUT_FAILED);
    EXPECT_EQ(other->infer(own.front(), rootsOutput), KELM_ERROR_MAP_OUTPUT_FAILED);
    EXPECT_EQ(other->infer(own.front(), own.back(), &rootsOutput, 1), KELM_ERROR_MAP_AUX_FAILED);
    EXPECT_EQ(other->infer(own.front(), own.back()), KELM_OK);
    EXPECT_EQ(TaskClient(path(), kGraph).infer(own.front(), rootsOutput), KELM_OK);
}

TEST_F(TensorsTest, EachClientGetsItsOwnResults) {
    for (const char* device : {"1.1", "1.2", "1.3.1"}) plug(device);
    for (const char* container : kContainers) {
        SCOPED_TRACE(container);
        startOn(container);
        std::list<TensorLoad> loads;
        for (const auto types : {TensorTypes::kDescriptors, TensorTypes::kNames,
                                 TensorTypes::kMixed, TensorTypes::kMixed}) {
            const std::string name = "client " + std::to_string(loads.size());
            loads.emplace_back(
                path(),
                plan(name, {"KELMSIM input=5000 output=777 micros=900\nshared by all",
                            "KELMSIM input=9 output=9000 micros=300\n" + name}),
                TensorPlan{0, "", types});
        }
        for (TensorLoad& load : loads) ASSERT_TRUE(load.getsOn(100)) << lastLines();
        for (TensorLoad& load : loads) EXPECT_EQ(load.finish(), "");
        endService();
    }
}

// First at the moments that matter, then at any.
TEST_F(TensorsTest, MemoryThatIsTakenBackCostsItsTaskAlone) {
#ifdef NDEBUG
    constexpr int kRounds = 60;
#else
    constexpr int kRounds = 15;
#endif
    constexpr int kTasks = 4;
    plug("1.1");
    const std::pair<const char*, KelmBufferType> rows[] = {{"default", KELM_BUFFER_SHARE_MEMORY},
                                                           {"system", KELM_BUFFER_ION}};
    for (const auto& [container, mappedType] : rows) {
        SCOPED_TRACE(container);
        startOn(container);
        TensorLoad load(path(), plan("neighbour", {"KELMSIM input=5000 output=777\nfirst"}));
        ASSERT_TRUE(load.getsOn()) << lastLines();
        TaskClient client = shrinkingClient();
        EXPECT_EQ(shrinkInUse(client, mappedType, KELM_FD_INPUT), KELM_ERROR_MAP_INPUT_FAILED);
        EXPECT_EQ(shrinkInUse(client, mappedType, KELM_FD_OUTPUT), KELM_ERROR_MAP_OUTPUT_FAILED);
        EXPECT_TRUE(waitLogCount("a client shortened its memory", 2));
        for (int round = 0; round < kRounds; ++round) {
            const auto type = round % 2 == 0 ? KELM_BUFFER_SHARE_MEMORY : KELM_BUFFER_ION;
            std::deque<SharedTensor> inputs;
            std::deque<SharedTensor> outputs;
            for (int i = 0; i < kTasks; ++i) {
                ASSERT_TRUE(client.submit(inputs.emplace_back(type, kSize),
                                          outputs.emplace_back(type, kSize)));
            }
            for (const SharedTensor& tensor : round % 3 == 0 ? outputs : inputs) {
                tensor.resize(round % 5 * kSize / 5);
            }
            for (int i = 0; i < kTasks; ++i) {
                ASSERT_NE(client.wait(), TaskClient::kNoAnswer) << lastLines();
            }
        }
        const std::string shrinking = SharedTensor::namePrefix();
        ASSERT_TRUE(load.getsOn()) << lastLines();
        EXPECT_EQ(load.finish(), "");
        EXPECT_TRUE(eventually([&] { return !isMapped(shrinking); })) << "tasks have ended";
        endService();
    }
}

}  // namespace
}  // namespace kelm
