#include "utils/DeviceMonitor.h"

#include "fakes/Eventually.h"
#include "fakes/TestPch.h"

namespace kelm {
namespace {

using testing::ElementsAre;

// Notifies from its own thread, as the watcher of a bus does, until it is told to stop. Its first
// launch fails.
class NotifyingImpl : public DeviceMonitorImpl {
 public:
    void addDeviceFilter(int, int) override {}
    bool launch() override {
        if (++m_launches == 1) return false;
        m_thread = std::thread([this] {
            do {
                m_parent->notifyPluginDevice({"1.2", 1, 2, 0});
            } while (!m_stopped);
        });
        return true;
    }
    void stop() override {
        m_stopped = true;
        m_thread.join();
    }
    std::vector<DeviceDesc> getDeviceList(int, int) override { return {}; }

 private:
    int m_launches = 0;
    std::atomic<bool> m_stopped{false};
    std::thread m_thread;
};

}  // namespace

TEST(DeviceMonitorTest, FakeDevicesShareOneSubclassAndKeepTheirDefaultNumber) {
    DeviceMonitor monitor;
    EXPECT_FALSE(monitor.addDeviceFilter(1, 2));  // nothing watches yet
    EXPECT_FALSE(monitor.launch());
    EXPECT_TRUE(monitor.getDeviceList(7, 8).empty());
    for (const auto& [asked, expected] : {std::pair(0, 3U), std::pair(-1, 3U), std::pair(2, 2U)}) {
        SCOPED_TRACE(asked);
        monitor.setFakeMode(asked);
        const std::vector<DeviceDesc> devices = monitor.getDeviceList(7, 8);
        ASSERT_EQ(devices.size(), expected);
        EXPECT_EQ(devices[1].name, "Fake1");
        EXPECT_EQ(devices[1].vendorId, 7);
        EXPECT_EQ(devices[1].productId, 8);
        EXPECT_EQ(devices[1].interfaceSubclass, 0);
    }
}

TEST(DeviceMonitorTest, ListenersHearInOrderOfRegistrationUntilTheyLeave) {
    DeviceMonitor monitor;
    std::vector<std::string> heard;
    const auto listener = [&heard](const std::string& who) {
        return [&heard, who](const DeviceDesc& desc, DeviceMonitor::PlugType type) {
            heard.push_back(who + std::to_string(type) + desc.name);
        };
    };
    const unsigned long first = monitor.registerListen(listener("a"));
    monitor.registerListen(listener("b"));
    monitor.notifyPluginDevice({"1.2", 1, 2, 0});
    monitor.unregisterListen(first);
    monitor.notifyPlugoutDevice({"1.2", 1, 2, 0});
    EXPECT_THAT(heard, ElementsAre("a01.2", "b01.2", "b11.2"));
}

TEST(DeviceMonitorTest, StopJoinsAThreadThatIsJustNotifyingAndTheNextLaunchIsFree) {
    DeviceMonitor monitor(std::make_unique<NotifyingImpl>());
    std::atomic<int> heard{0};
    monitor.registerListen([&](const DeviceDesc&, DeviceMonitor::PlugType) { ++heard; });
    EXPECT_FALSE(monitor.launch());
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(monitor.addDeviceFilter(1, 2));
        ASSERT_TRUE(monitor.launch());
        EXPECT_FALSE(monitor.launch());
        EXPECT_FALSE(monitor.addDeviceFilter(1, 2));
        EXPECT_TRUE(eventually([&] { return heard > round; }));
        monitor.stop();
        monitor.stop();
    }
}

}  // namespace kelm
