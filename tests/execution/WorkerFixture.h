#pragma once

#include <deque>
#include <memory>

#include "TestConfig.h"
#include "execution/WorkThread.h"
#include "fakes/Eventually.h"
#include "fakes/FakeResultSink.h"
#include "fakes/FakeTaskExchange.h"
#include "fakes/ScriptedDevice.h"
#include "fakes/TestPch.h"
#include "fakes/TestRecords.h"
#include "protocol/src/KelmError.h"
#include "utils/Port.h"

namespace kelm {

constexpr int kHardwareError = -6;

// A work thread over a scripted device; it is destroyed before what surrounds it.
class WorkerFixture : public testing::Test {
 protected:
    explicit WorkerFixture(FakeTaskExchange::Answer answer = FakeTaskExchange::Answer::OnThread)
        : exchange(answer) {
        script.setHardwareError(kHardwareError);
    }

    void start(int slots = 1, int inferences = 4) {
        addTestConfig(R"({"service_settings": {"max_inference_number": )" +
                      std::to_string(inferences) + "}}");
        worker = std::make_unique<WorkThread>("dev", 0, slots, 4);
    }
    void startLoaded(int slots = 1) {
        start(slots);
        ASSERT_EQ(load(graph.get()), 0);
    }
    int load(KelmGraph* one) { return worker->enqueueLoadGraph(one).get(); }
    int unload(KelmGraph* one) { return worker->enqueueUnloadGraph(one, false).get(); }
    KelmTask* addTask(KelmGraph* one) {
        tasks.push_back(makeTestTask(tasks.size() + 1, one));
        return tasks.back().get();
    }
    KelmTask* feed(KelmGraph* one) {
        worker->enqueueLoadTensor(addTask(one));
        return tasks.back().get();
    }
    bool calls(DeviceCall call, int count = 1) {
        return eventually([&] { return script.count(call) == count; });
    }
    bool settles(size_t done, size_t returned) {
        return eventually(
            [&] { return sink.done().size() == done && exchange.returned().size() == returned; });
    }

    ScriptedDevices devices;
    DeviceScript& script = devices["dev"];
    FakeTaskExchange exchange;
    FakeResultSink sink;
    ScopedPort<TaskExchange> exchangePort{exchange};
    ScopedPort<ResultSink> sinkPort{sink};
    std::unique_ptr<KelmGraph> graph = makeTestGraph(1, "one");
    std::unique_ptr<KelmGraph> other = makeTestGraph(2, "two");
    std::deque<std::unique_ptr<KelmTask>> tasks;
    std::unique_ptr<WorkThread> worker;
};

}  // namespace kelm
