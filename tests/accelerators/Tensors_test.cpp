#include "accelerators/AcceleratorFixture.h"
#include "accelerators/TaskClient.h"

namespace kelm {
namespace {

class TensorsTest : public AcceleratorFixture {
 protected:
    static constexpr size_t kSize = 400000;  // of the tensors that shrink, and of their graph's

    bool isMapped(const std::string& name) const {
        const std::string text = readText("/proc/" + std::to_string(service().pid()) + "/maps");
        return text.find(name) != std::string::npos;
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
        client.submit(input, output);
        const SharedTensor& shrunk = isInput ? input : output;
        EXPECT_TRUE(eventually([&] { return isMapped(shrunk.name()); })) << lastLines();
        shrunk.resize(role);  // to nothing or to a byte
        host().order("");
        return client.wait();
    }
};

TEST_F(TensorsTest, MemoryThatIsTakenBackCostsItsTaskAlone) {
    plug("1.1");
    const std::pair<const char*, KelmBufferType> rows[] = {{"default", KELM_BUFFER_SHARE_MEMORY},
                                                           {"system", KELM_BUFFER_ION}};
    for (const auto& [container, mappedType] : rows) {
        SCOPED_TRACE(container);
        startService(R"("debug_settings": {"tensor_container": ")" + std::string(container) +
                     "\"}");
        TensorLoad load(path(),
                        {.name = "neighbour", .graphs = {"KELMSIM input=5000 output=777\nfirst"}});
        ASSERT_TRUE(load.getsOn()) << lastLines();
        TaskClient client(path(), "KELMSIM input=400000 output=400000 memory=3 micros=300\n");
        EXPECT_EQ(shrinkInUse(client, mappedType, KELM_FD_INPUT), KELM_ERROR_MAP_INPUT_FAILED);
        EXPECT_EQ(shrinkInUse(client, mappedType, KELM_FD_OUTPUT), KELM_ERROR_MAP_OUTPUT_FAILED);
        const std::string shrinking = SharedTensor::namePrefix();
        ASSERT_TRUE(load.getsOn()) << lastLines();
        EXPECT_EQ(load.finish(), "");
        EXPECT_TRUE(eventually([&] { return !isMapped(shrinking); })) << "tasks have ended";
        endService();
    }
}

}  // namespace
}  // namespace kelm
