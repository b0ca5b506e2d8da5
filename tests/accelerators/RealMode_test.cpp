#include "accelerators/AcceleratorFixture.h"

namespace kelm {
namespace {

class RealModeTest : public AcceleratorFixture {
 protected:
    RealModeTest() {
        for (const char* device : {"1.1", "1.2", "1.3.1"}) plug(device);
    }
};

TEST_F(RealModeTest, ResultIsWrongOnOneOfThePaths) {
    for (const char* container : {"default", "system"}) {
        SCOPED_TRACE(container);
        startService(R"("debug_settings": {"tensor_container": ")" + std::string(container) +
                     "\"}");
        auto first = checkedLoad(1, "--tensors descriptor --name first");
        auto second = checkedLoad(1, "--tensors memory --name second");
        EXPECT_EQ(resultOf(first), "");
        EXPECT_EQ(resultOf(second), "");
        endService();
    }
}

TEST_F(RealModeTest, UnpluggedDeviceTakesItsTasksWithIt) {
    startService();
    auto load = checkedLoad(4);
    for (size_t round = 1; round <= 3; ++round) {
        EXPECT_TRUE(host().unplug("1.2"));
        EXPECT_TRUE(waitLogCount("Old worker(Wt1.2) is removed", round));
        host().plug("1.2");
        EXPECT_TRUE(waitLogCount("worker(Wt1.2) created on device", round + 1));
    }
    EXPECT_EQ(resultOf(load), "");
}

TEST_F(RealModeTest, HardwareErrorLosesTasksOrTheDevice) {
    startService();
    auto load = checkedLoad(4);
    host().order("fail 1.1 qxFifoReadElem -6 1\n");
    EXPECT_TRUE(waitEvent("reset 1.1"));
    EXPECT_TRUE(waitLogCount("worker(Wt1.1) created on device", 2));
    EXPECT_EQ(resultOf(load), "");
}

TEST_F(RealModeTest, CrashedBootToolStaysDead) {
    startService("", {"KELM_BOOT_CRASH=1"});
    EXPECT_TRUE(waitEvent("boot --auxiliary --recover"));
}

}  // namespace
}  // namespace kelm
