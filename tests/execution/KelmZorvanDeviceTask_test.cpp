// The path of a task through an accelerator, and what the device tells of itself.
#include <cmath>
#include <fstream>
#include <future>

#include "ZorvanFixture.h"
#include "fakes/Eventually.h"

namespace kelm {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class KelmZorvanTaskTest : public ZorvanFixture {
 protected:
    KelmZorvanTaskTest() { load(); }

    void load() {
        ASSERT_EQ(first->allocateGraph(graph.get()), 0);
        (void)tevo.takeCalls();
    }
    int run(KelmTask* task) {
        const int rc = first->loadTensor(task);
        return rc != 0 ? rc : first->getResult(task);
    }
    static bool isAsleep(pid_t thread) {
        std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
        std::string text;
        std::getline(file, text);
        return text.find(") S ") != std::string::npos;
    }
    // Behind the results that do not count after a change of graphs.
    void warmUp() {
        for (int i = 0; i < 5; ++i) EXPECT_EQ(run(addTask(ion("abcd"), ion("...."))), 0);
        (void)tevo.takeCalls();
    }
};

}  // namespace

TEST_F(KelmZorvanTaskTest, WrongPathIsTaken) {
    const struct {
        bool isSystem, ionInput, ionOutput, auxWanted, ionAux;
        const char* write;
        const char* read;
        size_t imported;  // buffers that are mapped by the ION device
    } rows[] = {
        {false, true, true, false, false, "qxFifoWriteIonElem", "qxFifoReadIonElem", 0},
        {false, true, true, true, true, "qxFifoWriteIonElem", "qxFifoReadIonElem", 1},
        {false, true, true, true, false, "qxFifoWriteIonElem", "qxFifoReadElem", 1},
        {false, false, true, false, false, "qxFifoWriteElem", "qxFifoReadIonElem", 0},
        {false, true, false, false, false, "qxFifoWriteIonElem", "qxFifoReadElem", 0},
        {true, true, true, false, false, "qxFifoWriteElem", "qxFifoReadElem", 2},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << &row - rows);
        open(row.isSystem ? R"("tensor_container": "system")" : R"("tensor_container": "default")",
             0, 60000);
        load();
        KelmTask* const task = addTask(
            row.ionInput ? ion("abcd") : shared("abcd"),
            row.ionOutput ? ion("....") : shared("...."),
            row.auxWanted ? wanted(row.ionAux ? ion("....") : shared("...."), 0) : KelmBuffer{});
        ASSERT_EQ(run(task), 0);
        EXPECT_THAT(tevo.takeCalls(),
                    ElementsAre("qxFifoGetOption", row.write, "qxGraphQueueInference", row.read));
        const KelmBuffer& output = task->getTaskParam()->getOutputBuffer();
        const bool isMapped = output.buffer != 0;
        EXPECT_EQ(isMapped, row.read == std::string("qxFifoReadElem"));
        EXPECT_EQ(isMapped ? contentOf(output).substr(0, 4) : ScriptedIon::contentOf(output.fd, 4),
                  "abcd");
        EXPECT_EQ(m_ion.handles.size(), row.imported);
        tasks.clear();
        EXPECT_TRUE(m_ion.handles.empty());
    }
}

TEST_F(KelmZorvanTaskTest, RefusedBuffersReachTheDevice) {
    const KelmBuffer none{};
    KelmBuffer closed = none;
    closed.type = KELM_BUFFER_ION;
    closed.size = 4;
    KelmBuffer unknown = closed;
    unknown.type = 9;
    const struct {
        KelmBuffer input, output, aux;
        int expected;
    } rows[] = {
        {none, ion("...."), none, KELM_ERROR_INVALID_INPUT_BUFFER},
        {closed, ion("...."), none, KELM_ERROR_INVALID_INPUT_BUFFER},
        {ion("abcd"), none, none, KELM_ERROR_INVALID_OUTPUT_BUFFER},
        {ion("abcd"), closed, none, KELM_ERROR_INVALID_OUTPUT_BUFFER},
        {ion("abcd"), ion("...."), wanted(closed, 1), KELM_ERROR_INVALID_AUX_BUFFER},
        {shared("abc", 4), ion("...."), none, KELM_ERROR_MAP_INPUT_FAILED},
        {shared("abc"), ion("...."), none, KELM_ERROR_INVALID_INPUT_BUFFER},
        {unknown, ion("...."), none, KELM_ERROR_MAP_INPUT_FAILED},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.expected);
        EXPECT_EQ(first->loadTensor(addTask(row.input, row.output, row.aux)), row.expected);
        for (const char* write : {"qxFifoWriteElem", "qxFifoWriteIonElem"}) {
            EXPECT_EQ(tevo.count(write), 0);
        }
    }
    tevo.descriptorLength = 20;
    EXPECT_EQ(first->loadTensor(addTask(ion("abcd"), ion("...."))),
              KELM_ERROR_TENSOR_DESCRIPTOR_MISMATCH);
    EXPECT_EQ(tevo.count("qxDeviceHWReset"), 0);
}

TEST_F(KelmZorvanTaskTest, ResultWithoutPlaceGoesToTheNextTask) {
    KelmTask* const lost = addTask(ion("lost"), shared("..", 4));
    KelmTask* const blind = addTask(ion("aux."), shared("...."), wanted(shared(".", 4), 1));
    KelmTask* const good = addTask(ion("good"), shared("...."));
    EXPECT_EQ(run(lost), KELM_ERROR_MAP_OUTPUT_FAILED);
    EXPECT_EQ(run(blind), KELM_ERROR_MAP_AUX_FAILED);
    EXPECT_EQ(run(good), 0);
    EXPECT_EQ(outputOf(good), "good");
}

TEST_F(KelmZorvanTaskTest, NamedMemoryIsMappedAsTheSenderOfTheTaskMayUseIt) {
    const auto sender =
        std::make_shared<const PeerCredentials>(PeerCredentials{1, ::geteuid() + 1, {}});
    const struct {
        mode_t input, output, aux;
        int expected;
    } rows[] = {
        {0600, 0606, 0606, KELM_ERROR_MAP_INPUT_FAILED},
        {0604, 0604, 0606, KELM_ERROR_MAP_OUTPUT_FAILED},
        {0604, 0606, 0604, KELM_ERROR_MAP_AUX_FAILED},
        {0604, 0606, 0606, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.expected);
        KelmTask* const task =
            addTask(sharedWithMode("abcd", row.input), sharedWithMode("....", row.output),
                    wanted(sharedWithMode("....", row.aux), 1), sender);
        EXPECT_EQ(run(task), row.expected);
    }
}

TEST_F(KelmZorvanTaskTest, StatusOfTheLibraryIsLost) {
    for (const char* call : {"qxFifoGetOption", "qxFifoWriteElem", "qxFifoWriteIonElem",
                             "qxGraphQueueInference", "qxFifoReadElem", "qxFifoReadIonElem"}) {
        SCOPED_TRACE(call);
        open("", 0, 0);
        load();
        const int resets = tevo.count("qxDeviceHWReset");
        tevo.failAll(call, kGone);
        const int byFd = run(addTask(ion("abcd"), ion("....")));
        const int raw = run(addTask(shared("abcd"), shared("....")));
        EXPECT_TRUE(byFd == kGone || raw == kGone);
        EXPECT_EQ(tevo.count("qxDeviceHWReset"), resets + 1);
        EXPECT_EQ(run(addTask(ion("abcd"), ion("...."))), KELM_ERROR_DEVICE_FAILED);
        tevo.failAll(call, 0);
    }
}

// Inputs whose inference was refused come out before those that were fed later.
TEST_F(KelmZorvanTaskTest, RefusedInferenceDoesNotShiftResults) {
    KelmTask* const refused = addTask(shared("0000"), shared("...."));
    KelmTask* const next = addTask(shared("1111"), shared("...."));
    KelmTask* const last = addTask(shared("2222"), shared("...."));
    tevo.fail("qxGraphQueueInference", kNoMemory);
    EXPECT_EQ(first->loadTensor(refused), kNoMemory);
    // The graph is switched out and back in between, onto the other slot.
    ASSERT_EQ(first->deallocateGraph(graph.get(), true), 0);
    ASSERT_EQ(second->allocateGraph(graph.get()), 0);
    ASSERT_EQ(second->loadTensor(next), 0);
    ASSERT_EQ(second->loadTensor(refused), 0) << "tried again, with its id in the queue twice";
    ASSERT_EQ(second->getResult(next), 0);
    EXPECT_EQ(outputOf(next), "1111");
    ASSERT_EQ(second->getResult(refused), 0);
    EXPECT_EQ(outputOf(refused), "0000");

    // The inference that makes up for it is refused as well: nothing more is written.
    tevo.fail("qxGraphQueueInference", kNoMemory);
    EXPECT_EQ(second->loadTensor(refused), kNoMemory);
    const int written = tevo.count("qxFifoWriteElem");
    tevo.fail("qxGraphQueueInference", kRefused);
    EXPECT_EQ(second->loadTensor(next), kRefused);
    EXPECT_EQ(tevo.count("qxFifoWriteElem"), written);
    ASSERT_EQ(second->loadTensor(last), 0);
    ASSERT_EQ(second->getResult(last), 0);
    EXPECT_EQ(outputOf(last), "2222");
    EXPECT_EQ(tevo.emptyReads(), 0);
}

TEST_F(KelmZorvanTaskTest, FailedReadDoesNotShiftResults) {
    for (const bool byFd : {false, true}) {
        const std::string read = byFd ? "qxFifoReadIonElem" : "qxFifoReadElem";
        for (const bool isTaken : {false, true}) {
            SCOPED_TRACE(read + (isTaken ? ", result taken" : ", result kept"));
            const auto failNext = [&](int skip) {
                isTaken ? tevo.failBehind(read, kRefused, skip) : tevo.fail(read, kRefused, skip);
            };
            const auto add = [&](const std::string& content) {
                return byFd ? addTask(ion(content), ion("...."))
                            : addTask(shared(content), shared("...."));
            };
            const auto expectOutput = [&](KelmTask* task, const std::string& content) {
                const KelmBuffer& output = task->getTaskParam()->getOutputBuffer();
                EXPECT_EQ(byFd ? ScriptedIon::contentOf(output.fd, 4) : contentOf(output), content);
            };
            KelmTask* const one = add("1111");
            KelmTask* const two = add("2222");
            KelmTask* const three = add("3333");
            // The task comes again before the next one's result is read.
            ASSERT_EQ(first->loadTensor(one), 0);
            ASSERT_EQ(first->loadTensor(two), 0);
            failNext(0);
            EXPECT_EQ(first->getResult(one), kRefused);
            ASSERT_EQ(first->loadTensor(one), 0);
            EXPECT_EQ(first->getResult(two), 0);
            EXPECT_EQ(first->getResult(one), 0);
            expectOutput(two, "2222");
            expectOutput(one, "1111");
            // It comes again behind its own doubtful result, and fails again.
            failNext(0);
            EXPECT_EQ(run(two), kRefused);
            tevo.fail("qxFifoReadElem", kRefused);
            EXPECT_EQ(run(two), kRefused);
            EXPECT_EQ(run(two), 0);
            expectOutput(two, "2222");
            EXPECT_EQ(run(three), 0);
            // The graph leaves and returns to others.
            failNext(0);
            EXPECT_EQ(run(one), kRefused);
            ASSERT_EQ(first->deallocateGraph(graph.get(), true), 0);
            ASSERT_EQ(first->allocateGraph(graph.get()), 0);
            EXPECT_EQ(run(three), 0);
            expectOutput(three, "3333");
        }
    }
    EXPECT_EQ(tevo.emptyReads(), 0);
    EXPECT_EQ(tevo.count("qxGraphDestroy"), 0);
}

TEST_F(KelmZorvanTaskTest, ResultsOfOthersStayOutOfABuffer) {
    KelmTask* const secret = addTask(shared("1111"), shared("...."));
    KelmTask* const curious = addTask(shared("2222"), shared("...."));
    KelmTask* const blind = addTask(shared("3333"), shared("..", 4));
    tevo.fail("qxFifoReadElem", kRefused);
    EXPECT_EQ(run(secret), kRefused);
    tevo.fail("qxFifoReadElem", kRefused, 1);
    EXPECT_EQ(run(curious), kRefused);
    EXPECT_EQ(outputOf(curious), "....");
    EXPECT_EQ(run(blind), KELM_ERROR_MAP_OUTPUT_FAILED);
    EXPECT_EQ(run(curious), 0);
    EXPECT_EQ(outputOf(curious), "2222");
}

// Twenty in a row, with queues of four places.
TEST_F(KelmZorvanTaskTest, UnreadResultsLeaveRoomForInputs) {
    // Done with a result of which nobody knows whether it was that of its first or second attempt.
    KelmTask* const doubtful = addTask(shared("0000"), shared("...."));
    tevo.failBehind("qxFifoReadElem", kRefused);
    EXPECT_EQ(run(doubtful), kRefused);
    EXPECT_EQ(run(doubtful), 0);
    const struct {
        const char* what;
        std::function<void()> failNext;
    } rows[] = {
        {"taken", [this] { tevo.failBehind("qxFifoReadElem", kRefused); }},
        {"kept", [this] { tevo.fail("qxFifoReadElem", kRefused); }},
        {"refused",
         [this, lacking = 0]() mutable {
             tevo.fail("qxGraphQueueInference", kRefused, std::exchange(lacking, 1));
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        for (int i = 0; i < 20; ++i) {
            row.failNext();
            EXPECT_EQ(run(addTask(shared("1111"), shared("...."))), kRefused);
        }
        KelmTask* const task = addTask(shared("2222"), shared("...."));
        EXPECT_EQ(run(task), 0);
        EXPECT_EQ(outputOf(task), "2222");
    }
    EXPECT_LE(tevo.deepest(), tevo.fifoCapacity);
    EXPECT_EQ(tevo.emptyReads(), 0);

    // Where only new queues help and cannot be had, the next task tries again.
    tevo.failAll("qxFifoReadElem", kRefused);
    tevo.failAll("qxGraphAllocate", kNoMemory);
    KelmTask* const task = addTask(shared("3333"), shared("...."));
    EXPECT_TRUE(eventually([&] { return run(task) == kNoMemory; }));
    EXPECT_EQ(run(task), kNoMemory);
    tevo.failAll("qxFifoReadElem", 0);
    tevo.failAll("qxGraphAllocate", 0);
    EXPECT_EQ(run(task), 0);
    EXPECT_EQ(outputOf(task), "3333");
    EXPECT_FALSE(root->isFailed());
}

// An input waits for room as long as results are awaited, and for no longer.
TEST_F(KelmZorvanTaskTest, InputWithoutRoomWaitsForTheResults) {
    const std::function<void(KelmTask*)> ends[] = {
        [this](KelmTask* task) { EXPECT_EQ(first->getResult(task), 0); },
        [this](KelmTask* task) { first->abandonResult(task); },
        [this](KelmTask*) { EXPECT_EQ(root->resetDevice(), 0); },
    };
    for (const auto& end : ends) {
        const auto index = &end - ends;
        SCOPED_TRACE(index);
        const bool isReset = index == 2;
        std::vector<KelmTask*> loaded;
        for (unsigned int i = 0; i < tevo.fifoCapacity; ++i) {
            loaded.push_back(addTask(ion("abcd"), ion("....")));
            ASSERT_EQ(first->loadTensor(loaded.back()), 0);
        }
        KelmTask* const task = addTask(ion("last"), ion("...."));
        std::atomic<pid_t> loader{0};
        auto load = std::async(std::launch::async, [&] {
            loader = ::gettid();
            return first->loadTensor(task);
        });
        EXPECT_TRUE(eventually([&] { return loader != 0 && isAsleep(loader); }));
        for (KelmTask* earlier : loaded) end(earlier);
        EXPECT_EQ(load.get(), isReset ? KELM_ERROR_DEVICE_FAILED : 0);
        if (isReset) continue;
        EXPECT_EQ(first->getResult(task), 0);
        EXPECT_EQ(ScriptedIon::contentOf(task->getTaskParam()->getOutputBuffer().fd, 4), "last");
    }
    EXPECT_LE(tevo.deepest(), tevo.fifoCapacity);
    EXPECT_EQ(tevo.emptyReads(), 0);
}

TEST_F(KelmZorvanTaskTest, ResultOfAnotherTaskIsHeldBack) {
    KelmTask* const one = addTask(shared("1111"), shared("...."));
    KelmTask* const two = addTask(shared("2222"), shared("...."));
    ASSERT_EQ(first->loadTensor(one), 0);
    ASSERT_EQ(first->loadTensor(two), 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(first->getResult(two), 0);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::HasSubstr("Warn: unmatched task sequence: device=1.2 taskIdOrigin=2 "
                                   "taskIdAttach=1"));
    EXPECT_EQ(outputOf(two), "1111");
}

// Also with a library that tells of more bytes than there was room for.
TEST_F(KelmZorvanTaskTest, AuxiliaryBlocksLeaveTheirOrderOrTheBuffer) {
    const std::string times(reinterpret_cast<const char*>(tevo.times.data()), 12);
    const std::vector<float> stats(25, tevo.temperature);
    const std::string thermal(reinterpret_cast<const char*>(stats.data()), 100);
    const std::string all = times + thermal + std::string(8, 'd');
    const struct {
        uint32_t flags;
        size_t room;
        std::string expected;
    } rows[] = {
        {7, 120, all},
        {7, 40, all.substr(0, 40)},
        {3, 10, all.substr(0, 10)},
        {7, 12, times},
        {6, 104, thermal + "dddd"},
        {4, 3, "ddd"},
        {2, 101, thermal + "."},
        {0, 2, ".."},
    };
    for (const unsigned int lie : {0u, 1000u}) {
        tevo.lie = lie;
        for (const auto& row : rows) {
            SCOPED_TRACE(std::to_string(row.flags) + "/" + std::to_string(row.room));
            KelmTask* const task = addTask(ion("abcd"), shared("...."),
                                           wanted(shared(std::string(row.room, '.')), row.flags));
            ASSERT_EQ(run(task), 0);
            EXPECT_EQ(contentOf(task->getTaskParam()->getAuxBuffer()), row.expected);
        }
    }
}

TEST_F(KelmZorvanTaskTest, FailedAuxiliaryBlockLooksFilled) {
    const std::string unusable(20, '\xA5');
    const struct {
        const char* call;
        uint32_t flags;
        std::string content;
    } rows[] = {{"qxGraphGetOption(1011)", 1, std::string(20, '.')},
                {"qxGraphGetOption(1001)", 1, unusable},
                {"qxDeviceGetOption(2000)", 2, unusable},
                {"qxGraphGetOption(1006)", 4, std::string(20, '.')}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.call);
        KelmTask* const task =
            addTask(ion("abcd"), ion("...."), wanted(shared(std::string(20, '.')), row.flags));
        tevo.fail(row.call, kNoMemory);
        EXPECT_EQ(run(task), kNoMemory);
        EXPECT_EQ(contentOf(task->getTaskParam()->getAuxBuffer()), row.content);
    }
    EXPECT_FALSE(root->isFailed());
}

TEST_F(KelmZorvanTaskTest, InferenceTimesAreReadTooOftenOrTooEarly) {
    warmUp();
    EXPECT_EQ(graph->getAvgInferTime(), 0.0f) << "the first results are slow";
    ASSERT_EQ(run(addTask(ion("abcd"), ion("...."))), 0);
    EXPECT_EQ(graph->getAvgInferTime(), 2.5f);
    EXPECT_EQ(tevo.count("qxGraphGetOption(1001)"), 1);

    for (const std::vector<float>& times : {std::vector<float>{}, {9.0f}, {1.0f, NAN, 3.0f}}) {
        tevo.times = times;
        EXPECT_EQ(run(addTask(ion("abcd"), ion("...."))), 0);
        EXPECT_EQ(graph->getAvgInferTime(), 2.5f);
    }
    tevo.times = {0.0f, 0.0f, 2.5f};
    open("", 0, 60000);
    load();
    warmUp();
    ASSERT_EQ(run(addTask(ion("abcd"), ion("...."))), 0);
    EXPECT_THAT(tevo.takeCalls(), testing::Not(testing::Contains("qxGraphGetOption(1001)")));
    ASSERT_EQ(run(addTask(ion("abcd"), ion("...."), wanted(ion("...."), 1))), 0);
    EXPECT_EQ(tevo.count("qxGraphGetOption(1001)"), 5) << "a client's wish goes beyond the limit";
}

TEST_F(KelmZorvanTaskTest, TemperaturesAreReadTooOften) {
    const auto readings = [&](int intervalMs) {
        open("", intervalMs, 60000);
        load();
        const int before = tevo.count("qxDeviceGetOption(2000)");
        for (int i = 0; i < 3; ++i) EXPECT_EQ(run(addTask(ion("abcd"), ion("...."))), 0);
        return tevo.count("qxDeviceGetOption(2000)") - before;
    };
    EXPECT_EQ(readings(0), 0) << "switched off";
    EXPECT_EQ(readings(60000), 0) << "not due yet";
    EXPECT_EQ(root->updateThermal(), 0);
    EXPECT_EQ(root->getThermal(), 50.0f);
    EXPECT_EQ(root->getThermalThrottlingLevel(), 1);
    tevo.fail("qxDeviceGetOption(2001)", kGone);
    EXPECT_EQ(root->updateThermal(), kGone);
    EXPECT_EQ(root->updateThermal(), KELM_ERROR_DEVICE_FAILED);
}

}  // namespace kelm
