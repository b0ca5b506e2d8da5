#include "accelerators/AcceleratorFixture.h"
#include "accelerators/TaskClient.h"
#include "tools/simulator/FaultMix.h"

namespace kelm {
namespace {

class FaultsTest : public AcceleratorFixture {
 protected:
    // Starts the service and notes what it holds once its first client has left again.
    void startWarm(const std::string& sections = "") {
        startService(sections);
        TensorLoad load(path(), twoGraphs("warm-up"));
        ASSERT_TRUE(load.getsOn()) << lastLines();
        EXPECT_EQ(load.finish(), "");
        const SharedTensor tensor(KELM_BUFFER_ION, 4096);
        // Opens the ION device, once.
        EXPECT_EQ(TaskClient(path(), "auxiliary").infer(tensor, tensor, &tensor), KELM_OK);
        m_before = footprint();
        // What the first use has set up comes late, in other threads: warm is what stays as it is.
        for (Footprint last{}; last != m_before; m_before = footprint()) {
            last = m_before;
            std::this_thread::sleep_for(300ms);
        }
    }
    // To be called when all clients have left and all devices are there again.
    void expectNothingLeft() {
        Footprint now{};
        EXPECT_TRUE(eventually([&] {
            now = footprint();
            return std::ranges::equal(now, m_before, std::less_equal<>());
        })) << testing::PrintToString(now)
            << " before: " << testing::PrintToString(m_before);
    }

    // Told when a worker was built for the device.
    static std::string built(const std::string& device) {
        return "worker(Wt" + device + ") created on device";
    }
    void plugAnew(const std::string& device) {
        const size_t before = logCount(built(device));
        plug(device);
        EXPECT_TRUE(waitLogCount(built(device), before + 1)) << lastLines();
    }
    void unplug(const std::string& device) {
        const std::string removed = "Old worker(Wt" + device + ") is removed";
        const size_t before = logCount(removed);
        EXPECT_TRUE(host().unplug(device));
        EXPECT_TRUE(waitLogCount(removed, before + 1)) << lastLines();
    }

 private:
    // Descriptors, threads, and mappings of memory files and shared memory objects.
    using Footprint = std::array<size_t, 3>;

    Footprint footprint() const {
        std::ifstream maps("/proc/" + std::to_string(service().pid()) + "/maps");
        size_t mappings = 0;
        for (std::string line; std::getline(maps, line);) {
            if (line.find("/dev/shm/") != line.npos || line.find("/memfd:") != line.npos)
                ++mappings;
        }
        return {descriptors(), threads(), mappings};
    }

    Footprint m_before;
};

TEST_F(FaultsTest, TasksOfALostDeviceGoOnElsewhere) {
    const struct {
        const char* container;
        std::vector<const char*> faults;
    } rows[] = {{"default", {"qxFifoWriteElem -13", "qxFifoReadIonElem -2"}},
                {"system", {"qxGraphQueueInference -8", "qxDeviceGetOption -126"}}};
    for (const char* device : {"1.1", "1.2"}) plug(device);
    for (const auto& [container, faults] : rows) {
        startWarm(R"("debug_settings": {"tensor_container": ")" + std::string(container) + "\"}");
        TensorLoad first(path(), twoGraphs("first"));
        TensorLoad second(path(), twoGraphs("second"));
        for (const char* fault : faults) {
            SCOPED_TRACE(fault);
            ASSERT_TRUE(first.getsOn()) << lastLines();
            ASSERT_TRUE(second.getsOn()) << lastLines();
            const size_t resets = eventCount("reset 1.1");
            const size_t before = logCount(built("1.1"));
            host().order(std::string("fail 1.1 ") + fault + " 1");
            ASSERT_TRUE(waitEvent("reset 1.1", resets + 1)) << lastLines();
            ASSERT_TRUE(waitLogCount(built("1.1"), before + 1)) << lastLines();
            EXPECT_EQ(eventCount("reset 1.1"), resets + 1);
        }
        host().order("");
        const size_t resets = eventCount("reset 1.1");
        unplug("1.1");
        ASSERT_TRUE(first.getsOn()) << lastLines();
        plugAnew("1.1");
        EXPECT_EQ(eventCount("reset 1.1"), resets);
        EXPECT_EQ(first.finish(), "");
        EXPECT_EQ(second.finish(), "");
        expectNothingLeft();
        endService();
    }
}

// The long run of the same is scripts/faults.sh.
// Few places in the device's queues, so that results that are not read soon fill them.
TEST_F(FaultsTest, RandomFaultsCostNoAnswerAndNoDevice) {
    constexpr std::chrono::milliseconds kFaultTime{50};
    const std::vector<std::string> devices{"1.1", "1.2", "1.3"};
    for (const std::string& device : devices) plug(device);
    startWarm(R"("service_settings": {"max_inference_number": 2})");
    // A client needs no mock bus, whose library closes descriptors behind a sanitizer's back.
    std::string command = "LD_PRELOAD= KELM_RUN_DIR=" + service().runDir() +
                          " " KELM_SIMULATOR_DIR "/kelm-sim-load --tasks 1000 --failing --aux";
    for (const std::string& graph : twoGraphs("").graphs) {
        command += " --graph " + service().files().write(graph.substr(graph.size() - 5), graph);
    }
    std::vector<std::future<int>> loads;
    for (const std::string name : {"first", "second", "third", "fourth"}) {
        loads.push_back(std::async(std::launch::async, [command, name] {
            return std::system((command + " --name " + name).c_str());
        }));
    }
    simulator::FaultMix mix(1, devices);
    const auto limit = std::chrono::steady_clock::now() + 30s;
    for (auto& load : loads) {
        while (load.wait_for(kFaultTime) != std::future_status::ready) {
            waitWithEvents([] { return true; });
            host().order(std::chrono::steady_clock::now() < limit ? mix.next() : "");
        }
        EXPECT_EQ(load.get(), 0);
    }
    host().order("");
    EXPECT_TRUE(waitWithEvents([&] { return status().devices.size() == devices.size(); }));
    expectNothingLeft();
}

// How a device falls silent.
struct Hang {
    enum When { kBeforeLoad, kUnderLoad, kPluggedAnew };

    std::string what;
    When when;
    std::string function;      // the one that does not return
    std::string failing = "";  // another one that fails, and makes the service call it

    friend std::ostream& operator<<(std::ostream& out, const Hang& row) { return out << row.what; }
};

class HangTest : public FaultsTest, public ::testing::WithParamInterface<Hang> {
 protected:
    std::string ordersFor(const std::string& device) {
        const Hang& row = GetParam();
        const std::string orders = "hang " + device + " " + row.function;
        return row.failing.empty() ? orders
                                   : orders + "\nfail " + device + " " + row.failing + " -6";
    }
};

TEST_P(HangTest, OthersGoOnBesideASilentDevice) {
    for (const char* device : {"1.1", "1.2"}) plug(device);
    host().plug("1.3", 1);
    startService(R"("scheduler_config": [{"subclass": 0, "stream_device_number": 1}])");
    TensorLoad neighbour(path(), {.name = "neighbour", .graphs = {"stream"}}, {.stream = "camera"});
    TensorLoad stranger(path(), {.name = "stranger", .graphs = {"other"}}, {.subclass = 1});
    ASSERT_TRUE(neighbour.getsOn()) << lastLines();
    ASSERT_TRUE(stranger.getsOn()) << lastLines();
    const auto rows = status().devices;
    const auto silent = std::ranges::find_if(
        rows, [](const auto& row) { return row.subclass == 0 && row.graph != "neighbour"; });
    ASSERT_NE(silent, rows.end());
    const std::string device = silent->name;
    if (GetParam().when == Hang::kBeforeLoad) host().order(ordersFor(device));
    TensorLoad victim(path(), twoGraphs("victim"));
    ASSERT_TRUE(GetParam().when == Hang::kBeforeLoad || victim.getsOn());
    host().order(ordersFor(device));
    if (GetParam().when == Hang::kPluggedAnew) {
        ASSERT_TRUE(host().unplug(device));
        plug(device);
    }
    ASSERT_TRUE(waitEvent("hang " + device + " " + GetParam().function)) << lastLines();
    ASSERT_TRUE(neighbour.getsOn());
    ASSERT_TRUE(stranger.getsOn());
    TensorLoad newcomer(path(), {.name = "newcomer", .graphs = {"new"}}, {.subclass = 1});
    ASSERT_TRUE(newcomer.getsOn());
    std::set<std::string> missing{"1.1", "1.2", "1.3"};
    for (const client::DeviceStatus& row : status().devices) missing.erase(row.name);
    EXPECT_THAT(missing, testing::IsSubsetOf({device}));
    victim.hangUp();
    ASSERT_TRUE(neighbour.getsOn());
    EXPECT_EQ(newcomer.finish(), "");
    EXPECT_EQ(stranger.finish(), "");
    EXPECT_EQ(neighbour.finish(), "");

    service().signal(SIGUSR1);
    EXPECT_EQ(service().waitExit(kTimeToEnd), 0) << lastLines();
    // That it has left without waiting is right here, so only the rest of endService().
    for (const char* words : {"Sanitizer", "runtime error"})
        EXPECT_EQ(logCount(words), 0U) << words;
}

INSTANTIATE_TEST_SUITE_P(Of, HangTest,
                         ::testing::Values(Hang{"load", Hang::kBeforeLoad, "qxGraphAllocate"},
                                           Hang{"write", Hang::kUnderLoad, "qxFifoWriteElem"},
                                           Hang{"read", Hang::kUnderLoad, "qxFifoReadIonElem"},
                                           Hang{"reading", Hang::kUnderLoad, "qxDeviceGetOption"},
                                           Hang{"reset", Hang::kUnderLoad, "qxDeviceHWReset",
                                                "qxFifoReadElem"},
                                           Hang{"unload", Hang::kPluggedAnew, "qxGraphDestroy"},
                                           Hang{"close", Hang::kPluggedAnew, "qxDeviceClose"},
                                           Hang{"open", Hang::kPluggedAnew, "qxDeviceOpenBooted"}),
                         [](const auto& row) { return row.param.what; });

}  // namespace
}  // namespace kelm
