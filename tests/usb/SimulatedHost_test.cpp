#include "tools/simulator/SimulatedHost.h"

#include "fakes/Eventually.h"
#include "fakes/TempDir.h"

namespace kelm::simulator {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class SimulatedHostTest : public ::testing::Test {
 protected:
    std::vector<std::string> bus() const {
        std::ifstream file(m_dir.path() + "/sim/bus");
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);) lines.push_back(line);
        return lines;
    }
    // As a library does it.
    void tell(const std::string& event) const {
        std::ofstream(m_dir.path() + "/sim/events", std::ios::app) << event << std::endl;
    }

    const TempDir m_dir;
};

TEST_F(SimulatedHostTest, DeviceThatWasResetReturnsUnderAnotherAddress) {
    SimulatedHost host(m_dir.path() + "/sim");
    host.plug("1.1");
    host.plug("1.2", 2);
    EXPECT_THAT(bus(), ElementsAre("1.1 1", "1.2 2"));
    tell("reset 1.2 1");  // of the one that was there before
    tell("reset 1.2 2");
    tell("hang 1.1 qxFifoReadElem");
    EXPECT_THAT(host.takeEvents(),
                ElementsAre("reset 1.2", "reset 1.2", "hang 1.1 qxFifoReadElem"));
    EXPECT_THAT(bus(), ElementsAre("1.1 1"));
    EXPECT_TRUE(eventually([&] {
        EXPECT_THAT(host.takeEvents(), IsEmpty());
        return bus().size() == 2;
    }));
    EXPECT_THAT(bus(), ElementsAre("1.1 1", "1.2 3"));
}

TEST_F(SimulatedHostTest, DeviceStaysAwayWhereItShall) {
    SimulatedHost host(m_dir.path() + "/sim", std::chrono::milliseconds(-1));
    host.plug("1.1");
    tell("reset 1.1 1");
    EXPECT_EQ(host.takeEvents().size(), 1U);
    EXPECT_THAT(host.takeEvents(), IsEmpty());
    EXPECT_THAT(bus(), IsEmpty());
    EXPECT_FALSE(host.unplug("1.1"));
    EXPECT_THROW(host.plug("1"), std::invalid_argument);
    EXPECT_THAT(bus(), IsEmpty());
}

}  // namespace
}  // namespace kelm::simulator
