// A sanitizer has these functions for itself.
#ifdef KELM_CALL_COUNTER

#include "accelerators/preload/CallCounts.h"

#include "accelerators/AcceleratorFixture.h"
#include "accelerators/TensorClient.h"

namespace kelm {
namespace {

class CallCountsTest : public AcceleratorFixture {
 protected:
    struct PerTask {
        double allocations = 0.0;
        double mappings = 0.0;
        double largeCopies = 0.0;
    };

    CallCountsTest() {
        m_file.reset(::open(m_path.c_str(), O_RDWR | O_CLOEXEC));
        void* const memory =
            ::mmap(nullptr, m_bytes.size(), PROT_READ, MAP_SHARED, m_file.get(), 0);
        if (memory == MAP_FAILED) throw std::runtime_error("mmap failed");
        m_counts = static_cast<const CallCounts*>(memory);
        preload(KELM_CALL_COUNTER);
    }

    // What the service does for a task with tensors of these types, once its own stores are filled.
    PerTask measure(const std::string& name, TensorTypes types) {
        LoadPlan plan;
        plan.name = "measured";
        plan.graphs = {"KELMSIM input=5000 output=6000 micros=1\ngraph"};
        TensorLoad load(path(), plan, {0, "", types});
        EXPECT_TRUE(load.getsOn(kTasks)) << lastLines();
        const uint64_t allocations = m_counts->allocations;
        const uint64_t mappings = m_counts->mappings;
        const uint64_t largeCopies = m_counts->largeCopies;
        const uint64_t before = load.done();
        EXPECT_TRUE(load.getsOn(kTasks)) << lastLines();
        const auto tasks = static_cast<double>(load.done() - before);
        const PerTask result{static_cast<double>(m_counts->allocations - allocations) / tasks,
                             static_cast<double>(m_counts->mappings - mappings) / tasks,
                             static_cast<double>(m_counts->largeCopies - largeCopies) / tasks};
        EXPECT_EQ(load.finish(), "");
        RecordProperty(name + "_allocations", std::to_string(result.allocations));
        RecordProperty(name + "_mappings", std::to_string(result.mappings));
        RecordProperty(name + "_largeCopies", std::to_string(result.largeCopies));
        return result;
    }

    static constexpr uint64_t kTasks = 3000;
    const std::string m_bytes = std::string(sizeof(CallCounts), '\0');
    TempDir m_directory;
    const std::string m_path = m_directory.write("counts", m_bytes);
    UniqueFd m_file;
    const CallCounts* m_counts = nullptr;
};

TEST_F(CallCountsTest, TaskWithDescriptorsIsMappedCopiedOrAllocatedFor) {
    // What is done now and then whatever the tasks, even on a slow machine, is far below.
    constexpr double kNotEachTask = 0.5;
    plug("1.1");
    startService("", {"KELM_CALL_COUNTS=" + m_path});
    const PerTask descriptors = measure("descriptors", TensorTypes::kDescriptors);
    EXPECT_LT(descriptors.allocations, kNotEachTask);
    EXPECT_LT(descriptors.mappings, kNotEachTask);
    EXPECT_LT(descriptors.largeCopies, kNotEachTask);
    const PerTask names = measure("names", TensorTypes::kNames);  // shows that it is counted
    EXPECT_GT(names.allocations, kNotEachTask);
    EXPECT_GT(names.mappings, kNotEachTask);
    EXPECT_GT(names.largeCopies, kNotEachTask);
}

}  // namespace
}  // namespace kelm

#endif
