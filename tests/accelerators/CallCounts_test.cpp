// A sanitizer has these functions for itself.
#ifdef KELM_CALL_COUNTER

#include "accelerators/AcceleratorFixture.h"

namespace kelm {
namespace {

class CallCountsTest : public AcceleratorFixture {
 protected:
    // What the file of the counts has.
    uint64_t allocations() const {
        uint64_t count = 0;
        std::ifstream(m_path, std::ios::binary)
            .read(reinterpret_cast<char*>(&count), sizeof(count));
        return count;
    }
    // What the service allocates for a task with tensors of these types, once its own stores are
    // filled.
    double allocationsPerTask(KelmBufferType type) {
        TensorLoad load(
            path(), plan("measured", {"KELMSIM input=5000 output=6000 micros=1\ngraph"}), {}, type);
        EXPECT_TRUE(load.getsOn(kTasks)) << lastLines();
        const uint64_t before = allocations();
        const uint64_t done = load.done();
        EXPECT_TRUE(load.getsOn(kTasks)) << lastLines();
        const auto tasks = static_cast<double>(load.done() - done);
        const auto made = static_cast<double>(allocations() - before);
        EXPECT_EQ(load.finish(), "");
        return made / tasks;
    }

    static constexpr uint64_t kTasks = 3000;
    TempDir m_directory;
    const std::string m_path = m_directory.write("counts", std::string(sizeof(uint64_t), '\0'));
};

TEST_F(CallCountsTest, NothingIsAllocatedForATaskWithDescriptors) {
    // What is done now and then whatever the tasks, even on a slow machine, is far below.
    constexpr double kNotEachTask = 0.5;
    plug("1.1");
    preload(KELM_CALL_COUNTER);
    startService("", {"KELM_CALL_COUNTS=" + m_path});
    EXPECT_LT(allocationsPerTask(KELM_BUFFER_ION), kNotEachTask);
    // Shows that it is counted.
    EXPECT_GT(allocationsPerTask(KELM_BUFFER_SHARE_MEMORY), kNotEachTask);
}

}  // namespace
}  // namespace kelm

#endif
