#include "utils/DeviceMonitor.h"

namespace kelm {
namespace {

// Notifies from its own thread, as the watcher of a bus does, until it is told to stop.
class NotifyingImpl : public DeviceMonitorImpl {
 public:
    void addDeviceFilter(int, int) override {}
    bool launch() override {
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
    std::atomic<bool> m_stopped{false};
    std::thread m_thread;
};

}  // namespace

TEST(DeviceMonitorTest, FakeDevicesKeepTheirDefaultNumber) {
    DeviceMonitor monitor;
    EXPECT_FALSE(monitor.launch());  // nothing watches yet
    EXPECT_TRUE(monitor.getDeviceList(7, 8).empty());
    for (const auto& [asked, expected] : {std::pair(0, 3U), std::pair(-1, 3U), std::pair(2, 2U)}) {
        monitor.setFakeMode(asked);
        EXPECT_EQ(monitor.getDeviceList(7, 8).size(), expected) << asked;
    }
}

TEST(DeviceMonitorTest, StopJoinsAThreadThatIsJustNotifyingAndTheNextLaunchIsFree) {
    DeviceMonitor monitor(std::make_unique<NotifyingImpl>());
    std::atomic<int> first{0};
    std::atomic<int> second{0};
    const auto listen = [&](std::atomic<int>& heard) {
        return monitor.registerListen([&](const DeviceDesc&, DeviceMonitor::PlugType) { ++heard; });
    };
    listen(first);
    const unsigned long id = listen(second);
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(monitor.addDeviceFilter(1, 2));
        const auto before = std::pair(first.load(), second.load());
        ASSERT_TRUE(monitor.launch());
        EXPECT_FALSE(monitor.launch());
        EXPECT_FALSE(monitor.addDeviceFilter(1, 2));
        EXPECT_TRUE(eventually([&] { return first > before.first && second > before.second; }));
        for (int i = 0; i < 2; ++i) monitor.stop();
    }
    const auto before = std::pair(first.load(), second.load());
    monitor.unregisterListen(id);
    monitor.notifyPlugoutDevice({"1.2", 1, 2, 0});
    EXPECT_EQ(first, before.first + 1);  // this one still listens
    EXPECT_EQ(second, before.second);
}

}  // namespace kelm
