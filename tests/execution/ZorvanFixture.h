#pragma once

#include <sys/stat.h>

#include <deque>

#include "TestConfig.h"
#include "execution/KelmZorvanDevice.h"
#include "fakes/ScriptedIon.h"
#include "fakes/ScriptedTevo.h"
#include "fakes/TestPch.h"
#include "fakes/TestRecords.h"
#include "records/KelmTaskParam.h"
#include "utils/ShareMemory.h"

namespace kelm {

constexpr int kGone = -6;      // means a lost device
constexpr int kNoMemory = -3;  // does not
constexpr int kRefused = -5;   // nor does this

// An open device with two clones over a scripted library.
class ZorvanFixture : public testing::Test {
 protected:
    ZorvanFixture() { open(R"("tensor_container": "default")", 0, 0); }
    ~ZorvanFixture() override { close(); }

    // A fresh device after a change of settings. Readings are off unless an interval is given.
    void open(const std::string& debugSettings, int thermalMs, int timesMs) {
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
        EXPECT_EQ(tevo.live(), 0) << "handles were left behind";
    }

    // A buffer of the client's, whose share of the memory object stays until the test ends.
    KelmBuffer shared(const std::string& content, uint64_t claimed) {
        const std::string name = "/kelm_test_zorvan" + std::to_string(::getpid()) + "_" +
                                 std::to_string(segments.size());
        segments.emplace_back();
        auto* data = static_cast<char*>(segments.back().create(name.c_str(), content.size()));
        std::copy(content.begin(), content.end(), data);
        KelmBuffer buffer{};
        buffer.type = KELM_BUFFER_SHARE_MEMORY;
        buffer.size = claimed;
        (void)StringHelper::copyStringSafe(buffer.name, name);
        return buffer;
    }
    KelmBuffer shared(const std::string& content) { return shared(content, content.size()); }
    static KelmBuffer ion(const std::string& content) { return ScriptedIon::makeBuffer(content); }
    static KelmBuffer wanted(KelmBuffer aux, uint32_t flags) {
        aux.auxRequested = 1;
        aux.auxFlags = flags;
        return aux;
    }
    // The same with a mode of its own.
    KelmBuffer sharedWithMode(const std::string& content, mode_t mode) {
        const KelmBuffer buffer = shared(content);
        EXPECT_EQ(::chmod((std::string("/dev/shm") + buffer.name).c_str(), mode), 0);
        return buffer;
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
    static std::string contentOf(const KelmBuffer& buffer) {
        return {reinterpret_cast<const char*>(buffer.buffer), buffer.size};
    }
    static std::string outputOf(KelmTask* task) {
        return contentOf(task->getTaskParam()->getOutputBuffer());
    }

    ScriptedIon m_ion;
    ScriptedTevo tevo;
    std::deque<ShareMemory> segments;
    std::unique_ptr<KelmGraph> graph = makeTestGraph(1, "one");
    std::unique_ptr<KelmGraph> other = makeTestGraph(2, "two");
    std::unique_ptr<KelmZorvanDevice> root;
    std::unique_ptr<KelmDeviceBase> first;
    std::unique_ptr<KelmDeviceBase> second;
    std::deque<std::unique_ptr<KelmTask>> tasks;
};

}  // namespace kelm
