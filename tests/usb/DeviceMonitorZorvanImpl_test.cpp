#include "utils/platform/linux/DeviceMonitorZorvanImpl.h"

#include "tools/simulator/UsbBus.h"
#include "utils/DeviceMonitor.h"
#include "utils/Mutex.h"
#include "utils/StringHelper.h"

namespace kelm {
namespace {

using simulator::UsbBus;

constexpr int kVendor = 0x7c52;
constexpr int kProduct = 0xe19a;

std::string text(const DeviceDesc& desc) {
    return StringHelper::format("%s %04x:%04x/%d", desc.name, desc.vendorId, desc.productId,
                                desc.interfaceSubclass);
}

// A bus, a monitor on it and what that has told.
class DeviceMonitorZorvanImplTest : public ::testing::Test {
 protected:
    void launch() {
        m_monitor.emplace(std::make_unique<DeviceMonitorZorvanImpl>());
        m_monitor->registerListen([this](const DeviceDesc& desc, DeviceMonitor::PlugType type) {
            MutexLock lock(m_mutex);
            m_events.push_back((type == DeviceMonitor::PLUGGED_IN ? "+" : "-") + text(desc));
        });
        EXPECT_TRUE(m_monitor->addDeviceFilter(kVendor, kProduct));
        ASSERT_TRUE(m_monitor->launch());
    }
    std::vector<std::string> list(int product) {
        std::vector<std::string> devices;
        for (const DeviceDesc& desc : m_monitor->getDeviceList(kVendor, product)) {
            devices.push_back(text(desc));
        }
        return devices;
    }
    std::vector<std::string> waitForEvents(size_t count) {
        std::vector<std::string> events;
        eventually([&] {
            MutexLock lock(m_mutex);
            events = m_events;
            return events.size() >= count;
        });
        return events;
    }

    UsbBus m_bus;
    std::optional<DeviceMonitor> m_monitor;

 private:
    Mutex m_mutex;
    std::vector<std::string> m_events GUARDED_BY(m_mutex);
};

TEST_F(DeviceMonitorZorvanImplTest, DevicesAreListedAndToldByPlaceAndInterface) {
    m_bus.plug({"1.2.3", kVendor, kProduct, 0});
    m_bus.plug({"1.2.11", kVendor, kProduct, 2});
    m_bus.plug({"2.1", kVendor, 0x1234, -1});
    m_bus.plug({"2.2", 0x1234, kProduct, 0});
    launch();
    EXPECT_THAT(list(kProduct), UnorderedElementsAre("1.2.3 7c52:e19a/0", "1.2.11 7c52:e19a/2"));
    EXPECT_THAT(list(0), UnorderedElementsAre("1.2.3 7c52:e19a/0", "1.2.11 7c52:e19a/2",
                                              "2.1 7c52:1234/-1"));
    m_bus.plug({"1.4", kVendor, 0x1234, 0});
    m_bus.plug({"1.5", kVendor, kProduct, -1});
    m_bus.unplug("1.4");
    m_bus.unplug("1.2.11");
    m_bus.plug({"1.2.11", kVendor, kProduct, 2});
    EXPECT_THAT(waitForEvents(3),
                ElementsAre("+1.5 7c52:e19a/-1", "-1.2.11 7c52:e19a/2", "+1.2.11 7c52:e19a/2"));
}

TEST_F(DeviceMonitorZorvanImplTest, EveryReturnIsToldWhenTheAddressesOfTheBusComeRound) {
    constexpr size_t kMoreThanAddresses = 130;
    launch();
    for (size_t i = 0; i < kMoreThanAddresses; ++i) {
        m_bus.plug({"1.2.3", kVendor, kProduct, 0});
        ASSERT_EQ(waitForEvents(2 * i + 1).size(), 2 * i + 1);
        m_bus.unplug("1.2.3");
        ASSERT_EQ(waitForEvents(2 * i + 2).size(), 2 * i + 2);
    }
}

TEST_F(DeviceMonitorZorvanImplTest, StopDoesNotWaitForAnEvent) {
    EXPECT_FALSE(DeviceMonitorZorvanImpl().launch()) << "nothing to look for";
    launch();
    m_bus.plug({"1.1", kVendor, kProduct, 0});
    EXPECT_EQ(waitForEvents(1).size(), 1U);  // the thread is at work
    const auto start = std::chrono::steady_clock::now();
    m_monitor->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    EXPECT_THAT(list(0), ElementsAre());  // and the context is not used any more
    EXPECT_FALSE(m_monitor->launch());
}

}  // namespace
}  // namespace kelm
