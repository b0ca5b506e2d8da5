#pragma once

#include "execution/KelmZorvanDevice.h"
#include "fakes/SimulatedLibraries.h"
#include "fakes/TestConfig.h"
#include "fakes/TestRecords.h"
#include "records/KelmTaskParam.h"
#include "tools/simulator/Model.h"
#include "utils/ShareMemory.h"

namespace kelm {

constexpr int kLost = -6;      // means a lost device
constexpr int kNoMemory = -3;  // does not
constexpr int kRefused = -5;   // nor does this

// An open device with two clones over the simulated library. Its graphs have four bytes in, four
// bytes out, and 8 MB.
class ZorvanFixture : public testing::Test {
 protected:
    ZorvanFixture() { open(R"("tensor_container": "default")"); }
    ~ZorvanFixture() override { close(); }

    // A fresh device after a change of settings. Readings are off unless an interval is given.
    void open(const std::string& debugSettings = "", int thermalMs = 0, int timesMs = 0) {
        close();
        addTestConfig(R"({"debug_settings": {)" + debugSettings + R"(}, "service_settings": {)" +
                      R"("update_thermal_interval": )" + std::to_string(thermalMs) +
                      R"(, "update_timetaken_interval": )" + std::to_string(timesMs) + "}}");
        root = std::make_unique<KelmZorvanDevice>("1.2");
        ASSERT_EQ(root->openDevice(), 0);
        first = root->clone();
        second = root->clone();
        (void)tevo.takeCalls();
    }
    void close() {
        first.reset();
        second.reset();
        root.reset();
        tasks.clear();
        EXPECT_EQ(tevo.live(), 0) << "handles were left behind";
    }
    static std::unique_ptr<KelmGraph> makeGraph(uint64_t id, const std::string& fields = "") {
        return makeTestGraph(id, "KELMSIM input=4 output=4 memory=8 micros=500 times=3 debug=8 " +
                                     fields + "\n" + std::to_string(id));
    }
    static simulator::Model modelOf(const KelmGraph& graph) {
        const auto* data = reinterpret_cast<const uint8_t*>(graph.getData());
        return simulator::Model::parse({data, graph.getDataSize()}).value();
    }
    // What the graph makes of an input.
    std::string resultOf(const std::string& input) const {
        std::string output(input.size(), '?');
        modelOf(*graph).infer({reinterpret_cast<const uint8_t*>(input.data()), input.size()},
                              {reinterpret_cast<uint8_t*>(output.data()), output.size()});
        return output;
    }
    // The next call fails, or the one behind so many.
    void fail(const std::string& call, int status, int skip = 0) {
        tevo.order("fail " + call + " " + std::to_string(status) + " 1 " +
                   std::to_string(skip + 1));
    }

    // A buffer of the client's, whose share of the memory object stays until the test ends.
    KelmBuffer shared(const std::string& content, uint64_t claimed = 0, mode_t mode = 0600) {
        const std::string name = "/kelm_test_zorvan" + std::to_string(::getpid()) + "_" +
                                 std::to_string(segments.size());
        segments.emplace_back();
        auto* data = static_cast<char*>(segments.back().create(name.c_str(), content.size()));
        std::copy(content.begin(), content.end(), data);
        EXPECT_EQ(::chmod(("/dev/shm" + name).c_str(), mode), 0);
        KelmBuffer buffer{};
        buffer.type = KELM_BUFFER_SHARE_MEMORY;
        buffer.size = claimed != 0 ? claimed : content.size();
        (void)StringHelper::copyStringSafe(buffer.name, name);
        return buffer;
    }
    static KelmBuffer ion(const std::string& content) { return SimulatedIon::makeBuffer(content); }
    static KelmBuffer wanted(KelmBuffer aux, uint32_t flags) {
        aux.auxRequested = 1;
        aux.auxFlags = flags;
        return aux;
    }
    KelmTask* addTask(
        const KelmBuffer& input, const KelmBuffer& output, const KelmBuffer& aux = KelmBuffer{},
        const std::shared_ptr<const PeerCredentials>& sender = PeerCredentials::ofThisProcess()) {
        const KelmMsgReqInferTask request{};
        tasks.push_back(std::make_unique<KelmTask>(
            tasks.size() + 1, nullptr, graph.get(),
            KelmTaskParam::create(input, output, aux, sender), &request));
        return tasks.back().get();
    }
    KelmTask* ionTask() { return addTask(ion("abcd"), ion("....")); }
    KelmTask* namedTask(const std::string& input) { return addTask(shared(input), shared("....")); }
    static std::string contentOf(const KelmBuffer& buffer) {
        if (buffer.buffer == 0) return SimulatedIon::contentOf(buffer.fd, buffer.size);
        return {reinterpret_cast<const char*>(buffer.buffer), buffer.size};
    }
    static std::string outputOf(KelmTask* task) {
        return contentOf(task->getTaskParam()->getOutputBuffer());
    }

    SimulatedLibraries tevo;
    std::deque<ShareMemory> segments;
    std::unique_ptr<KelmGraph> graph = makeGraph(1);
    std::unique_ptr<KelmGraph> other = makeGraph(2);
    std::unique_ptr<KelmZorvanDevice> root;
    std::unique_ptr<KelmDeviceBase> first;
    std::unique_ptr<KelmDeviceBase> second;
    std::deque<std::unique_ptr<KelmTask>> tasks;
};

}  // namespace kelm
