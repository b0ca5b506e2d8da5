// The path of a task through an accelerator, and what the device tells of itself.

#include "ZorvanFixture.h"
#include "execution/QueueLedger.h"
#include "records/BufferAllocator.h"

namespace kelm {
namespace {

constexpr int kFifoCapacity = 4;

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
    void expectResult(KelmTask* task, const std::string& input) {
        EXPECT_EQ(first->getResult(task), 0);
        EXPECT_EQ(outputOf(task), resultOf(input));
    }
    void expectRun(const std::string& input) {
        KelmTask* const task = namedTask(input);
        EXPECT_EQ(first->loadTensor(task), 0);
        expectResult(task, input);
    }
};

}  // namespace

TEST_F(KelmZorvanTaskTest, BuffersDecideOnThePath) {
    const struct {
        const char* container;
        const char* buffers;  // input, output and auxiliary one: by descriptor, by name or none
        const char* write;
        const char* read;
    } rows[] = {
        {"default", "dd-", "qxFifoWriteIonElem", "qxFifoReadIonElem"},
        {"default", "ddd", "qxFifoWriteIonElem", "qxFifoReadIonElem"},
        {"default", "ddn", "qxFifoWriteIonElem", "qxFifoReadElem"},
        {"default", "nd-", "qxFifoWriteElem", "qxFifoReadIonElem"},
        {"default", "dn-", "qxFifoWriteIonElem", "qxFifoReadElem"},
        {"system", "dd-", "qxFifoWriteElem", "qxFifoReadElem"},
    };
    const auto make = [this](char kind, const char* content) {
        return kind == '-' ? KelmBuffer{} : kind == 'd' ? ion(content) : shared(content);
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.container + std::string(row.buffers));
        open(R"("tensor_container": ")" + std::string(row.container) + "\"", 0, 60000);
        load();
        KelmBuffer aux = make(row.buffers[2], "....");
        aux.auxRequested = row.buffers[2] != '-' ? 1 : 0;
        KelmTask* const task =
            addTask(make(row.buffers[0], "abcd"), make(row.buffers[1], "...."), aux);
        ASSERT_EQ(run(task), 0);
        std::vector<std::string> calls = tevo.takeCalls();
        std::erase_if(calls, [](const std::string& name) { return name.starts_with("ion_"); });
        EXPECT_THAT(
            calls, ElementsAre("qxFifoGetOption(7)", row.write, "qxGraphQueueInference", row.read));
        EXPECT_EQ(outputOf(task), resultOf("abcd"));
    }
}

TEST_F(KelmZorvanTaskTest, RefusedBuffersDoNotReachTheDevice) {
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
        SCOPED_TRACE(&row - rows);
        EXPECT_EQ(first->loadTensor(addTask(row.input, row.output, row.aux)), row.expected);
    }
    tevo.order("lie 1.2 qxFifoGetOption -16");
    EXPECT_EQ(first->loadTensor(ionTask()), KELM_ERROR_TENSOR_DESCRIPTOR_MISMATCH);
    for (const char* call : {"qxFifoWriteElem", "qxFifoWriteIonElem", "qxDeviceHWReset"}) {
        EXPECT_EQ(tevo.count(call), 0) << call;
    }
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
        KelmTask* const task = addTask(shared("abcd", 0, row.input), shared("....", 0, row.output),
                                       wanted(shared("....", 0, row.aux), 1), sender);
        EXPECT_EQ(run(task), row.expected);
    }
    EXPECT_EQ(outputOf(tasks.back().get()), resultOf("abcd")) << "not one that found no place";
}

TEST_F(KelmZorvanTaskTest, BuffersThatIonCannotMapCostTheirTasks) {
    open(R"("tensor_container": "system")");
    load();
    tevo.order("fail - ion_import -1");
    const KelmBuffer aux = wanted(ion("...."), 1);
    EXPECT_EQ(run(addTask(ion("abcd"), shared("...."))), KELM_ERROR_MAP_INPUT_FAILED);
    EXPECT_EQ(run(addTask(shared("abcd"), ion("...."))), KELM_ERROR_MAP_OUTPUT_FAILED);
    EXPECT_EQ(run(addTask(shared("abcd"), shared("...."), aux)), KELM_ERROR_MAP_AUX_FAILED);
    EXPECT_EQ(run(namedTask("abcd")), 0);
    IonLibrary::install(nullptr);
    BufferAllocator withoutLibrary;
    KelmBuffer buffer = ion("abcd");
    EXPECT_EQ(withoutLibrary.import(buffer.fd, &buffer), KELM_ERROR_BUFFER_ALLOC_FAILED);
    EXPECT_EQ(withoutLibrary.free(&buffer), 0);
}

TEST_F(KelmZorvanTaskTest, HardwareErrorOfAnyStepResetsOnce) {
    for (const char* call : {"qxFifoGetOption", "qxFifoWriteElem", "qxFifoWriteIonElem",
                             "qxGraphQueueInference", "qxFifoReadElem", "qxFifoReadIonElem"}) {
        SCOPED_TRACE(call);
        open();
        load();
        const int resets = tevo.count("qxDeviceHWReset");
        tevo.order(std::string("fail 1.2 ") + call + " -6");
        const int byFd = run(ionTask());
        const int raw = run(namedTask("abcd"));
        EXPECT_TRUE(byFd == kLost || raw == kLost);
        EXPECT_EQ(tevo.count("qxDeviceHWReset"), resets + 1);
        EXPECT_EQ(run(ionTask()), KELM_ERROR_DEVICE_FAILED);
        tevo.cancelOrders();
    }
}

// Inputs whose inference was refused come out before those that were fed later.
TEST_F(KelmZorvanTaskTest, RefusedInferenceDoesNotShiftResults) {
    KelmTask* const refused = namedTask("0000");
    KelmTask* const next = namedTask("1111");
    fail("1.2 qxGraphQueueInference", kNoMemory);
    EXPECT_EQ(first->loadTensor(refused), kNoMemory);
    ASSERT_EQ(first->deallocateGraph(graph.get(), true), 0);
    ASSERT_EQ(second->allocateGraph(graph.get()), 0);
    std::swap(first, second);  // the graph has returned on the other slot
    ASSERT_EQ(first->loadTensor(next), 0);
    ASSERT_EQ(first->loadTensor(refused), 0) << "tried again, with its id in the queue twice";
    expectResult(next, "1111");
    expectResult(refused, "0000");

    // The inference that makes up for it is refused as well: nothing more is written.
    fail("1.2 qxGraphQueueInference", kNoMemory);
    EXPECT_EQ(first->loadTensor(refused), kNoMemory);
    const int written = tevo.count("qxFifoWriteElem");
    fail("1.2 qxGraphQueueInference", kRefused);
    EXPECT_EQ(first->loadTensor(next), kRefused);
    EXPECT_EQ(tevo.count("qxFifoWriteElem"), written);
    expectRun("2222");
}

TEST_F(KelmZorvanTaskTest, FailedReadDoesNotShiftResults) {
    for (const bool byFd : {false, true}) {
        const std::string read = byFd ? "qxFifoReadIonElem" : "qxFifoReadElem";
        for (const std::string fault : {"lose 1.2 ", "fail 1.2 "}) {
            SCOPED_TRACE(fault + read);
            const auto failNext = [&] { tevo.order(fault + read + " -5 1"); };
            const auto add = [&](const std::string& content) {
                return byFd ? addTask(ion(content), ion("....")) : namedTask(content);
            };
            KelmTask* const one = add("1111");
            KelmTask* const two = add("2222");
            KelmTask* const three = add("3333");
            // The task comes again before the next one's result is read.
            ASSERT_EQ(first->loadTensor(one), 0);
            ASSERT_EQ(first->loadTensor(two), 0);
            failNext();
            EXPECT_EQ(first->getResult(one), kRefused);
            ASSERT_EQ(first->loadTensor(one), 0);
            expectResult(two, "2222");
            expectResult(one, "1111");
            // It comes again behind its own doubtful result, and fails again.
            failNext();
            EXPECT_EQ(run(two), kRefused);
            fail("1.2 qxFifoReadElem", kRefused);
            EXPECT_EQ(run(two), kRefused);
            EXPECT_EQ(run(two), 0);
            EXPECT_EQ(outputOf(two), resultOf("2222"));
            ASSERT_EQ(first->loadTensor(three), 0);
            expectResult(three, "3333");
        }
    }
    EXPECT_EQ(tevo.count("qxGraphDestroy"), 0);
}

// A result that another task awaits is handed on.
TEST_F(KelmZorvanTaskTest, OnlyResultsThatNoTaskAwaitsStayOutOfABuffer) {
    KelmTask* const one = namedTask("1111");
    KelmTask* const two = namedTask("2222");
    ASSERT_EQ(first->loadTensor(one), 0);
    ASSERT_EQ(first->loadTensor(two), 0);
    expectResult(two, "1111");
    expectResult(one, "2222");
    fail("1.2 qxFifoReadElem", kRefused);
    EXPECT_EQ(run(namedTask("1111")), kRefused);
    KelmTask* const curious = namedTask("2222");
    fail("1.2 qxFifoReadElem", kRefused, 1);
    EXPECT_EQ(run(curious), kRefused);
    EXPECT_EQ(outputOf(curious), "....");
    EXPECT_EQ(run(addTask(shared("3333"), shared("..", 4))), KELM_ERROR_MAP_OUTPUT_FAILED);
    EXPECT_EQ(run(curious), 0);
    EXPECT_EQ(outputOf(curious), resultOf("2222"));
}

// Twenty in a row, with queues of four places: results that are taken, kept and made up for.
TEST_F(KelmZorvanTaskTest, UnreadResultsLeaveRoomForInputs) {
    const std::string inference = "fail 1.2 qxGraphQueueInference -5 1";
    for (const std::string& fault : {std::string("lose 1.2 qxFifoReadElem -5 1"),
                                     std::string("fail 1.2 qxFifoReadElem -5 1"), inference}) {
        SCOPED_TRACE(fault);
        const int destroyed = tevo.count("qxGraphDestroy");
        for (int i = 0; i < 20; ++i) {
            tevo.order(fault + (i > 0 && fault == inference ? " 2" : ""));
            EXPECT_EQ(run(namedTask("1111")), kRefused);
        }
        expectRun("2222");
        EXPECT_TRUE(fault != inference || tevo.count("qxGraphDestroy") == destroyed);
    }

    // Where only new queues help and cannot be had, the next task tries again.
    tevo.order("fail 1.2 qxFifoReadElem -5");
    tevo.order("fail 1.2 qxGraphAllocate -3");
    KelmTask* const task = namedTask("0000");
    EXPECT_TRUE(eventually([&] { return run(task) == kNoMemory; }));
    EXPECT_EQ(run(task), kNoMemory);
    tevo.cancelOrders();
    expectRun("3333");
    EXPECT_FALSE(root->isFailed());
}

// A task's second result may have been its first one: which of the two is left is in doubt.
TEST(QueueLedgerTest, OnlyNewQueuesHelpWhereAllThatIsLeftIsInDoubt) {
    const auto ledger = std::make_shared<QueueLedger>(2);
    const auto feed = [&](unsigned long taskId) {
        EXPECT_EQ(ledger->getNextStep(), QueueLedger::NextStep::kWrite);
        ledger->addInput(taskId);
        EXPECT_EQ(ledger->getNextStep(), QueueLedger::NextStep::kQueueInference);
        ledger->addInference();
    };
    const auto failReading = [&](unsigned long taskId) {
        feed(taskId);
        QueueLedger::Turn(ledger, taskId).addFailedReading();
    };
    failReading(1);
    feed(1);
    EXPECT_EQ(QueueLedger::Turn(ledger, 1).addResult(1), QueueLedger::Outcome::kOwn);
    failReading(2);
    EXPECT_EQ(ledger->getNextStep(), QueueLedger::NextStep::kRenew);
}

// An input waits for room as long as results are awaited, and for no longer.
TEST_F(KelmZorvanTaskTest, InputWithoutRoomWaitsForTheResults) {
    const std::function<void(KelmTask*)> ends[] = {
        [this](KelmTask* task) { EXPECT_EQ(first->getResult(task), 0); },
        [this](KelmTask* task) { first->abandonResult(task); },
        [this](KelmTask*) { EXPECT_EQ(root->resetDevice(), 0); },
    };
    for (const auto& end : ends) {
        const bool isReset = &end - ends == 2;
        SCOPED_TRACE(&end - ends);
        std::vector<KelmTask*> loaded;
        for (int i = 0; i < kFifoCapacity; ++i) {
            loaded.push_back(ionTask());
            ASSERT_EQ(first->loadTensor(loaded.back()), 0);
        }
        KelmTask* const task = addTask(ion("last"), ion("...."));
        auto load = startCalling([&] { return first->loadTensor(task); });
        EXPECT_EQ(load.wait_for(50ms), std::future_status::timeout);
        for (KelmTask* earlier : loaded) end(earlier);
        EXPECT_EQ(load.get(), isReset ? KELM_ERROR_DEVICE_FAILED : 0);
        if (!isReset) expectResult(task, "last");
    }
}

// Also with a library that tells of more bytes than there was room for.
TEST_F(KelmZorvanTaskTest, AuxiliaryBlocksKeepTheirOrderAndTheBuffer) {
    const simulator::Model model = modelOf(*graph);
    float values[simulator::kThermalFloats] = {};
    model.timeTaken(std::span(values, 3));
    const std::string times(reinterpret_cast<const char*>(values), 12);
    simulator::thermalStats(45.0f, values);
    const std::string thermal(reinterpret_cast<const char*>(values), 100);
    std::string debug(8, '?');
    model.debugInfo({reinterpret_cast<uint8_t*>(debug.data()), debug.size()});
    const std::string all = times + thermal + debug;
    const struct {
        uint32_t flags;
        size_t room;
        std::string expected;
    } rows[] = {
        {7, 120, all},
        {7, 40, all.substr(0, 40)},
        {7, 12, times},
        {6, 104, thermal + debug.substr(0, 4)},
        {4, 3, debug.substr(0, 3)},
        {2, 101, thermal + "."},
        {0, 2, ".."},
    };
    for (const bool isLying : {false, true}) {
        for (const char* call : {"qxGraphGetOption", "qxDeviceGetOption", "qxFifoReadElem"}) {
            if (isLying) tevo.order(std::string("lie 1.2 ") + call + " 1000");
        }
        for (const auto& row : rows) {
            SCOPED_TRACE(std::to_string(row.flags) + "/" + std::to_string(row.room));
            KelmTask* const task = addTask(ion("abcd"), shared("...."),
                                           wanted(shared(std::string(row.room, '.')), row.flags));
            ASSERT_EQ(run(task), 0);
            EXPECT_EQ(contentOf(task->getTaskParam()->getAuxBuffer()), row.expected);
        }
    }
}

TEST_F(KelmZorvanTaskTest, FailedAuxiliaryBlockIsMarked) {
    const std::string unusable(20, '\xA5');
    const std::string untouched(20, '.');
    const struct {
        const char* call;
        uint32_t flags;
        std::string content;
    } rows[] = {{"qxGraphGetOption(1011)", 1, untouched},
                {"qxGraphGetOption(1001)", 1, unusable},
                {"qxDeviceGetOption(2000)", 2, unusable},
                {"qxGraphGetOption(1006)", 4, untouched}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.call);
        KelmTask* const task =
            addTask(ion("abcd"), ion("...."), wanted(shared(untouched), row.flags));
        fail(std::string("1.2 ") + row.call, kNoMemory);
        EXPECT_EQ(run(task), kNoMemory);
        EXPECT_EQ(contentOf(task->getTaskParam()->getAuxBuffer()), row.content);
    }
    // The size is the client's word.
    const std::string sparse(20 << 20, '\0');
    KelmTask* const task = addTask(ion("abcd"), ion("...."), wanted(shared(sparse), 2));
    fail("1.2 qxDeviceGetOption(2000)", kNoMemory);
    EXPECT_EQ(run(task), kNoMemory);
    EXPECT_TRUE(contentOf(task->getTaskParam()->getAuxBuffer()).ends_with(sparse.substr(16 << 20)));
    EXPECT_FALSE(root->isFailed());
}

TEST_F(KelmZorvanTaskTest, InferenceTimesAreReadOnceInTheirIntervalAndNotTooEarly) {
    // Milliseconds between readings, floats that the library tells, readings of two results behind
    // those that do not count, and what came of them.
    const struct {
        int interval;
        const char* times;
        int readings;
        float average;
    } rows[] = {{0, "times=3", 2, 0.5f},
                {60000, "times=3", 0, 0.0f},
                {0, "times=2", 2, 0.0f},
                {0, "times=0", 2, 0.0f}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.times) + " " + std::to_string(row.interval));
        open("", 0, row.interval);
        graph = makeGraph(1, row.times);
        load();
        const int before = tevo.count("qxGraphGetOption(1001)");
        for (int i = 0; i < 5; ++i) EXPECT_EQ(run(ionTask()), 0);
        EXPECT_EQ(tevo.count("qxGraphGetOption(1001)"), before) << "the first results are slow";
        for (int i = 0; i < 2; ++i) EXPECT_EQ(run(ionTask()), 0);
        EXPECT_EQ(tevo.count("qxGraphGetOption(1001)"), before + row.readings);
        EXPECT_EQ(graph->getAvgInferTime(), row.average);
    }
}

TEST_F(KelmZorvanTaskTest, TemperatureIsReadWhenItIsDue) {
    tevo.order("heat 1.2 50 1");
    const auto readings = [&](int intervalMs) {
        open("", intervalMs, 60000);
        load();
        const int before = tevo.count("qxDeviceGetOption(2000)");
        for (int i = 0; i < 3; ++i) EXPECT_EQ(run(ionTask()), 0);
        return tevo.count("qxDeviceGetOption(2000)") - before;
    };
    EXPECT_EQ(readings(0), 0) << "switched off";
    EXPECT_EQ(readings(60000), 0) << "not due yet";
    EXPECT_EQ(root->updateThermal(), 0);
    EXPECT_EQ(root->getThermal(), 50.0f);
    EXPECT_EQ(root->getThermalThrottlingLevel(), 1);
    EXPECT_GT(readings(1), 0);
    EXPECT_EQ(root->getThermal(), 50.0f) << "shown by the root, read by a clone";
    fail("1.2 qxDeviceGetOption(2001)", kLost);
    EXPECT_EQ(root->updateThermal(), kLost);
    EXPECT_EQ(root->updateThermal(), KELM_ERROR_DEVICE_FAILED);
}

}  // namespace kelm
