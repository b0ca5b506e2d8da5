// A sanitizer has these functions for itself.
#ifdef KELM_CALL_COUNTER

#include "accelerators/preload/CallCounts.h"

#include "accelerators/AcceleratorFixture.h"

namespace kelm {
namespace {

class CallCountsTest : public AcceleratorFixture {
 protected:
    CallCountsTest() {
        m_file.reset(::open(m_path.c_str(), O_RDWR | O_CLOEXEC));
        void* const memory =
            ::mmap(nullptr, m_bytes.size(), PROT_READ, MAP_SHARED, m_file.get(), 0);
        if (memory == MAP_FAILED) throw std::runtime_error("mmap failed");
        m_counts = static_cast<const CallCounts*>(memory);
        preload(KELM_CALL_COUNTER);
    }

    // What the service allocates for a task with tensors of these types, once its own stores are
    // filled.
    double allocationsPerTask(KelmBufferType type) {
        TensorLoad load(path(),
                        plan("measured", {"KELMSIM input=5000 output=6000 micros=1\ngraph"}),
                        {0, "", type});
        EXPECT_TRUE(load.getsOn(kTasks)) << lastLines();
        const uint64_t before = m_counts->allocations;
        const uint64_t done = load.done();
        EXPECT_TRUE(load.getsOn(kTasks)) << lastLines();
        const auto tasks = static_cast<double>(load.done() - done);
        const auto allocations = static_cast<double>(m_counts->allocations - before);
        EXPECT_EQ(load.finish(), "");
        return allocations / tasks;
    }

    static constexpr uint64_t kTasks = 3000;
    const std::string m_bytes = std::string(sizeof(CallCounts), '\0');
    TempDir m_directory;
    const std::string m_path = m_directory.write("counts", m_bytes);
    UniqueFd m_file;
    const CallCounts* m_counts = nullptr;
};

TEST_F(CallCountsTest, NothingIsAllocatedForATaskWithDescriptors) {
    // What is done now and then whatever the tasks, even on a slow machine, is far below.
    constexpr double kNotEachTask = 0.5;
    plug("1.1");
    startService("", {"KELM_CALL_COUNTS=" + m_path});
    EXPECT_LT(allocationsPerTask(KELM_BUFFER_ION), kNotEachTask);
    // Shows that it is counted.
    EXPECT_GT(allocationsPerTask(KELM_BUFFER_SHARE_MEMORY), kNotEachTask);
}

}  // namespace
}  // namespace kelm

#endif
