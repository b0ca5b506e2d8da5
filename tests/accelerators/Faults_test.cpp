#include <optional>

#include "accelerators/AcceleratorFixture.h"
#include "accelerators/Footprint.h"
#include "accelerators/TensorClient.h"
#include "client/Client.h"
#include "system/TopProcess.h"
#include "tools/simulator/FaultMix.h"

namespace kelm {
namespace {

class FaultsTest : public AcceleratorFixture {
 protected:
    static LoadPlan plan(const std::string& name, std::vector<std::string> graphs) {
        LoadPlan result;
        result.name = name;
        result.graphs = std::move(graphs);
        return result;
    }
    static LoadPlan twoGraphs(const std::string& name) {
        return plan(name, {"KELMSIM input=5000 output=777 memory=9 micros=1500\nfirst",
                           "KELMSIM input=64 output=9000 memory=5 micros=700\nsecond"});
    }

    // Starts the service and notes what it holds once its first client has come and gone.
    void startWarm(const std::string& sections = "") {
        m_names = sharedMemoryNames();
        startService(sections);
        TensorLoad load(path(), twoGraphs("warm-up"));
        EXPECT_TRUE(load.getsOn()) << lastLines();
        EXPECT_EQ(load.finish(), "");
        auto auxiliary = checkedLoad(0, "--tasks 8 --aux");  // opens the ION device, once
        EXPECT_EQ(resultOf(auxiliary), "");
        m_before = Footprint::settled(service().pid());
    }
    // To be called when all clients have left and all devices are there again.
    void expectNothingLeft() {
        const int pid = service().pid();
        EXPECT_TRUE(eventually([&] { return Footprint::of(pid).fitsInto(m_before); }))
            << "now " << Footprint::of(pid) << ", before " << m_before;
        for (const std::string& name : sharedMemoryNames()) {
            EXPECT_TRUE(m_names.contains(name)) << name;
        }
    }

    client::ServiceStatus status() {
        auto client = client::Client::connect(path());
        EXPECT_TRUE(client) << client.error().text();
        const auto status = client.value()->queryStatus();
        EXPECT_TRUE(status) << status.error().text();
        return status ? status.value() : client::ServiceStatus();
    }
    // Whether all devices serve, if there are graphs for all.
    bool waitNoneIdle(size_t devices) {
        return waitWithEvents([&] {
            const auto isBusy = [](const client::DeviceStatus& row) { return row.fps > 0.0f; };
            const client::ServiceStatus now = status();
            return now.devices.size() == devices && std::ranges::all_of(now.devices, isBusy);
        });
    }
    // Whether its worker has been built anew so often.
    bool waitBack(const std::string& device, size_t count) {
        return waitLogCount("worker(Wt" + device + ") created on device", count + 1);
    }

 private:
    Footprint m_before;
    std::set<std::string> m_names;
};

TEST_F(FaultsTest, RefusedLoadFailsTheClientThoughOthersTakeTheGraph) {
    for (const char* device : {"1.1", "1.2", "1.3"}) plug(device);
    startWarm();
    size_t refused = 0;
    for (const char* order : {"fail 1.1 qxGraphAllocate -3", "fail 1.1 qxFifoAllocate -10",
                              "fail 1.1 qxGraphAllocate -6 1"}) {
        SCOPED_TRACE(order);
        host().order(order);
        TensorLoad load(path(), plan("client", {order}));
        EXPECT_TRUE(load.getsOn()) << lastLines();
        EXPECT_EQ(load.finish(), "");
        EXPECT_GT(logCount("failed, device=1.1"), refused) << lastLines();
        refused = logCount("failed, device=1.1");
    }
    EXPECT_TRUE(waitBack("1.1", 1));
    EXPECT_EQ(eventCount("reset 1.1"), 1U);
    expectNothingLeft();
}

TEST_F(FaultsTest, RefusedLoadIsNotTriedAgainElsewhere) {
    plug("1.1");
    plug("1.2");
    startWarm();
    size_t round = 0;
    for (const char* order : {"fail 1.1 qxGraphAllocate -3", "fail 1.1 qxGraphAllocate -6 1"}) {
        SCOPED_TRACE(order);
        host().order(order);
        EXPECT_TRUE(host().unplug("1.2"));
        EXPECT_TRUE(waitLogCount("Old worker(Wt1.2) is removed", ++round));
        const size_t refused = logCount("qxGraphAllocate() failed, device=1.1");
        TensorLoad load(path(), plan("client", {order}));
        EXPECT_TRUE(waitLogCount("qxGraphAllocate() failed, device=1.1", refused + 1));
        plug("1.2");
        EXPECT_TRUE(waitBack("1.2", round));
        EXPECT_TRUE(load.getsOn()) << lastLines();
        EXPECT_EQ(load.finish(), "");
    }
    EXPECT_TRUE(waitBack("1.1", 1));
    expectNothingLeft();
}

TEST_F(FaultsTest, TaskInFlightIsLostOrDoubledByAHardwareError) {
    const struct {
        std::string function;
        int status;
    } rows[] = {{"qxFifoReadElem", -6},    {"qxFifoWriteElem", -13},
                {"qxFifoReadIonElem", -2}, {"qxGraphQueueInference", -8},
                {"qxFifoGetOption", -126}, {"qxDeviceGetOption", -6}};
    for (const char* device : {"1.1", "1.2"}) plug(device);
    for (const std::string container : {"default", "system"}) {
        startWarm(R"("debug_settings": {"tensor_container": ")" + container + "\"}");
        TensorLoad first(path(), twoGraphs("first"));
        TensorLoad second(path(), twoGraphs("second"));
        const size_t resets = eventCount("reset 1.1");
        size_t round = 0;
        for (const auto& row : rows) {
            SCOPED_TRACE(container + " " + row.function);
            if (container == "system" && row.function == "qxFifoReadIonElem") continue;
            EXPECT_TRUE(first.getsOn());
            EXPECT_TRUE(second.getsOn());
            host().order("fail 1.1 " + row.function + " " + std::to_string(row.status) + " 1");
            EXPECT_TRUE(waitEvent("reset 1.1", resets + ++round)) << lastLines();
            EXPECT_TRUE(waitBack("1.1", round)) << lastLines();
        }
        host().order("");
        EXPECT_EQ(first.finish(), "");
        EXPECT_EQ(second.finish(), "");
        EXPECT_EQ(eventCount("reset 1.1"), resets + round);
        expectNothingLeft();
        endService();
    }
}

TEST_F(FaultsTest, TwoWorkersThatFailAtOnceResetTwice) {
    plug("1.1");
    startWarm();
    TensorLoad load(path(), twoGraphs("client"));
    EXPECT_TRUE(load.getsOn());
    host().order(
        "hang 1.1 qxFifoGetOption 2\n"
        "fail 1.1 qxFifoGetOption -6 2");
    EXPECT_TRUE(waitEvent("hang 1.1 qxFifoGetOption", 2));
    host().order("");  // both return with their error
    EXPECT_TRUE(waitBack("1.1", 1)) << lastLines();
    EXPECT_TRUE(load.getsOn());
    EXPECT_EQ(load.finish(), "");
    EXPECT_EQ(logCount("Error: qxFifoGetOption() failed, device=1.1"), 2U);
    EXPECT_EQ(eventCount("reset 1.1"), 1U);
    expectNothingLeft();
}

TEST_F(FaultsTest, UnpluggedDeviceTakesTasksWithIt) {
    constexpr size_t kRounds = 10;
    for (const char* device : {"1.1", "1.2", "1.3"}) plug(device);
    startWarm();
    TensorLoad first(path(), twoGraphs("first"));
    TensorLoad second(path(), twoGraphs("second"));
    for (size_t round = 1; round <= kRounds; ++round) {
        EXPECT_TRUE(first.getsOn());
        EXPECT_TRUE(second.getsOn());
        EXPECT_TRUE(host().unplug("1.2"));
        EXPECT_TRUE(waitLogCount("Old worker(Wt1.2) is removed", round)) << lastLines();
        plug("1.2");
        EXPECT_TRUE(waitBack("1.2", round)) << lastLines();
    }
    EXPECT_EQ(first.finish(), "");
    EXPECT_EQ(second.finish(), "");
    expectNothingLeft();
}

// With few places in the device's queues, faults that leave results there which nobody reads.
TEST_F(FaultsTest, PassingFaultsShiftNoResultAndStallNothing) {
    plug("1.1");
    startService(R"("service_settings": {"max_inference_number": 2})");
    for (const char* order : {"fail 1.1 qxFifoReadElem -5 1", "lose 1.1 qxFifoReadIonElem -5 1",
                              "fail 1.1 qxGraphQueueInference -5 16 2",
                              "fail 1.1 qxFifoReadElem -5 30", "lose 1.1 qxFifoReadElem -7 30"}) {
        SCOPED_TRACE(order);
        auto first = checkedLoad(0, "--tasks 200 --failing --name first");
        auto second = checkedLoad(0, "--tasks 200 --failing --name second");
        host().order(order);
        EXPECT_EQ(resultOf(first), "");
        EXPECT_EQ(resultOf(second), "");
    }
}

// The long run of the same is scripts/faults.sh.
TEST_F(FaultsTest, RandomFaultsCostNoAnswerAndNoDevice) {
    constexpr std::chrono::milliseconds kFaultTime{50};
    const std::vector<std::string> devices{"1.1", "1.2", "1.3"};
    for (const std::string& device : devices) plug(device);
    startWarm();
    std::vector<std::future<std::string>> loads;
    for (const char* name : {"first", "second", "third", "fourth"}) {
        loads.push_back(checkedLoad(0, std::string("--tasks 1000 --failing --aux --name ") + name));
    }
    simulator::FaultMix mix(1, devices);
    for (auto& load : loads) {
        const auto ended = [&] {
            return load.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready;
        };
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!waitWithEvents(ended, kFaultTime) && std::chrono::steady_clock::now() < limit) {
            host().order(mix.next());
        }
        EXPECT_EQ(resultOf(load), "");
    }
    host().order("");
    std::vector<std::unique_ptr<TensorLoad>> after;
    for (const std::string& device : devices) {
        after.push_back(std::make_unique<TensorLoad>(path(), plan(device, {device})));
    }
    EXPECT_TRUE(waitNoneIdle(devices.size())) << lastLines();
    for (auto& load : after) EXPECT_EQ(load->finish(), "");
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
    // The one of the subclass that has another graph or none.
    std::string deviceWithout(const std::string& graph, int subclass) {
        for (const client::DeviceStatus& row : status().devices) {
            if (row.subclass == subclass && row.graph != graph) return row.name;
        }
        return "none";
    }
    // Whoever asks is told of the other devices at least.
    void expectStatusWithout(const std::string& device) {
        std::set<std::string> missing{"1.1", "1.2", "1.3"};
        missing.erase(device);
        EXPECT_EQ(std::system((KELM_CTL + std::string(" status >/dev/null")).c_str()), 0);
        TopProcess top;
        for (const std::string& name : missing) EXPECT_TRUE(top.shows(name)) << name;
        top.type("q");
        EXPECT_EQ(top.wait(), 0);
        for (const client::DeviceStatus& row : status().devices) missing.erase(row.name);
        EXPECT_EQ(missing, std::set<std::string>());
    }
};

TEST_P(HangTest, SilentDeviceStopsOthers) {
    for (const char* device : {"1.1", "1.2"}) plug(device);
    host().plug("1.3", 1);
    startService(R"("scheduler_config": [{"subclass": 0, "stream_device_number": 1}])");
    TensorLoad neighbour(path(), plan("neighbour", {"stream"}), {0, "camera"});
    TensorLoad stranger(path(), plan("stranger", {"other"}), {1, ""});
    EXPECT_TRUE(neighbour.getsOn()) << lastLines();
    EXPECT_TRUE(stranger.getsOn()) << lastLines();
    const std::string device = deviceWithout("neighbour", 0);

    if (GetParam().when == Hang::kBeforeLoad) host().order(ordersFor(device));
    TensorLoad victim(path(), twoGraphs("victim"));
    EXPECT_TRUE(GetParam().when == Hang::kBeforeLoad || victim.getsOn());
    host().order(ordersFor(device));
    if (GetParam().when == Hang::kPluggedAnew) {
        EXPECT_TRUE(host().unplug(device));
        plug(device);
    }
    EXPECT_TRUE(waitEvent("hang " + device + " " + GetParam().function)) << lastLines();
    EXPECT_TRUE(neighbour.getsOn());
    EXPECT_TRUE(stranger.getsOn());
    TensorLoad newcomer(path(), plan("newcomer", {"new"}), {1, ""});
    EXPECT_TRUE(newcomer.getsOn());
    expectStatusWithout(device);
    victim.hangUp();
    EXPECT_TRUE(neighbour.getsOn());
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
