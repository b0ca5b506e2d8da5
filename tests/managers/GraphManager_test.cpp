#include "managers/GraphManager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "managers/ManagersFixture.h"
#include "managers/TaskManager.h"
#include "scheduling/devices/GraphPlacementListener.h"
#include "scheduling/tasks/TaskScheduleListener.h"
#include "utils/Port.h"

namespace kelm {
namespace {

constexpr char kOneGraph[] = R"("service_settings": {"max_graph_number": 1})";

class GraphManagerTest : public ManagersFixture {};

// Holds notices back until they are let through.
class Gate {
 public:
    void pass(std::function<void()> notice) {
        {
            MutexLock lock(m_mutex);
            if (m_closed) {
                m_held.push_back(std::move(notice));
                return;
            }
        }
        notice();
    }
    bool holds(size_t count) {
        return eventually([&] {
            MutexLock lock(m_mutex);
            return m_held.size() == count;
        });
    }
    void close() {
        MutexLock lock(m_mutex);
        m_closed = true;
    }
    void open() {
        std::vector<std::function<void()>> held;
        {
            MutexLock lock(m_mutex);
            m_closed = false;
            held.swap(m_held);
        }
        for (const auto& notice : held) notice();
    }

 private:
    Mutex m_mutex;
    bool m_closed GUARDED_BY(m_mutex) = false;
    std::vector<std::function<void()>> m_held GUARDED_BY(m_mutex);
};

// Stands between the device side and the graph manager.
struct GatedPlacement final : GraphPlacementListener {
    void enqueueNotifyLoadGraphDone(KelmGraph* graph, KelmError error) override {
        loads.pass([=] { GraphManager::instance().enqueueNotifyLoadGraphDone(graph, error); });
    }
    void enqueueNotifyUnloadGraphDone(KelmGraph* graph) override {
        unloads.pass([=] { GraphManager::instance().enqueueNotifyUnloadGraphDone(graph); });
    }
    Gate loads;
    Gate unloads;
};

// Stands between the task scheduler and the task manager.
struct GatedScheduling final : TaskScheduleListener {
    TaskManager& tasks = TaskManager::instance();
    void enqueueScheduleTaskDone(KelmTask* task, bool accepted) override {
        tasks.enqueueScheduleTaskDone(task, accepted);
    }
    void enqueueRescheduleTaskDone(KelmTask* task, bool accepted) override {
        tasks.enqueueRescheduleTaskDone(task, accepted);
    }
    void enqueueDescheduleTaskDone(KelmTask* task, bool removed) override {
        tasks.enqueueDescheduleTaskDone(task, removed);
    }
    void enqueueDescheduleGraphDone(KelmGraph* graph) override {
        graphs.pass([this, graph] { tasks.enqueueDescheduleGraphDone(graph); });
    }
    void enqueueDestroyTask(KelmTask* task) override { tasks.enqueueDestroyTask(task); }
    Gate graphs;
};

TEST_F(GraphManagerTest, TwinsLoadOnceAndAllAreAnswered) {
    start();
    device().block(DeviceCall::Allocate);
    WireClient first;
    WireClient second;
    first.sendCreateGraph("blob", "one");
    ASSERT_TRUE(eventually([&] { return device().count(DeviceCall::Allocate) == 1; }));
    second.sendCreateGraph("blob", "two");
    EXPECT_EQ(second.queryBufferSize(99).head.status, KELM_ERROR_INVALID_GRAPH);  // it waits
    device().release(DeviceCall::Allocate);
    const auto loaded = first.receive<KelmMsgRspCreateGraph>();
    EXPECT_EQ(loaded.head.status, KELM_OK);
    EXPECT_EQ(loaded.outputBufferSize, 4000u);
    EXPECT_EQ(second.receive<KelmMsgRspCreateGraph>().graphId, loaded.graphId);
    WireClient third;
    EXPECT_EQ(third.createGraph("blob").graphId, loaded.graphId);
    EXPECT_EQ(third.queryBufferSize(loaded.graphId).outputBufferSize, 300u + 120u + 104u);
    // Another tag is another graph, which no device here may take.
    EXPECT_EQ(third.createGraph("blob", "graph", "tag").head.status, KELM_ERROR_INVALID_PARAM);
    EXPECT_EQ(device().count(DeviceCall::Allocate), 1);
}

TEST_F(GraphManagerTest, IdentityByNameKeepsOneBlobUnderTwoNamesApart) {
    start(R"("debug_settings": {"graph_identity": "name"})");
    WireClient client;
    const uint64_t one = client.createGraph("blob", "one").graphId;
    EXPECT_NE(client.createGraph("blob", "two").graphId, one);
    EXPECT_EQ(client.createGraph("blob", "one").graphId, one);
}

TEST_F(GraphManagerTest, LimitRefusesTwinsTooAndCountsWhatIsGoingAway) {
    start(kOneGraph);
    WireClient client;
    const uint64_t id = client.createGraph("blob").graphId;
    EXPECT_EQ(client.createGraph("blob").head.status, KELM_ERROR_TOO_MANY_GRAPH);
    device().block(DeviceCall::Deallocate);
    EXPECT_EQ(client.destroyGraph(id), KELM_OK);
    EXPECT_EQ(client.createGraph("other").head.status, KELM_ERROR_TOO_MANY_GRAPH);
    device().release(DeviceCall::Deallocate);
    EXPECT_TRUE(placeIsGivenBack(client, "other"));
}

TEST_F(GraphManagerTest, PathsThatAreNoGraphFileAreRefusedUnread) {
    start();
    const std::string fifo = dir().path() + "/fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::string huge = dir().write("huge", "");
    std::filesystem::resize_file(huge, 5ull << 30);
    WireClient client;
    for (const std::string& path :
         {dir().path() + "/missing", dir().path(), fifo, std::string("/dev/zero"), huge}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(client.createGraphFromFile(path).head.status, KELM_ERROR_GRAPH_DIGEST_FAILED);
    }
    const std::string file = dir().write("file", "blob");
    const uint64_t fromFile = client.createGraphFromFile(file).graphId;
    EXPECT_EQ(client.createGraph("blob").graphId, fromFile);
    const std::string empty = dir().write("empty", "");
    const uint64_t fromEmpty = client.createGraphFromFile(empty).graphId;
    EXPECT_NE(fromEmpty, 0u);
    EXPECT_NE(client.createGraphFromFile(empty).graphId, fromEmpty);
}

// Bytes that this process has read from files and sockets.
uint64_t bytesRead() {
    std::ifstream io("/proc/self/io");
    std::string name;
    uint64_t count = 0;
    io >> name >> count;
    return count;
}

class GraphFileTest : public GraphManagerTest {
 protected:
    // Nobody can load it, so that its requests are answered when it was read.
    static constexpr const char* kRefused = "tag";

    std::string writeSparse(const char* name, uint64_t size) {
        const std::string path = dir().write(name, "");
        std::filesystem::resize_file(path, size);
        return path;
    }
};

TEST_F(GraphFileTest, OthersGoOnWhileAFileIsReadAndTheOrderOfOneConnectionStays) {
    start();
    const std::string huge = writeSparse("huge", 256 << 20);
    WireClient reader;
    WireClient other;
    for (int i = 0; i < 2; ++i) reader.sendCreateGraphFromFile(huge, kRefused);
    reader.send(reader.make<KelmMsgReqQueryBufferSize>(KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ));
    EXPECT_EQ(other.createGraph("blob").head.status, KELM_OK);
    EXPECT_FALSE(reader.hasAnswer());
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(reader.receive<KelmMsgRspCreateGraph>().head.status, KELM_ERROR_INVALID_PARAM);
    }
    EXPECT_EQ(reader.receive<KelmMsgRspQueryBufferSize>().head.status, KELM_ERROR_INVALID_GRAPH);
}

TEST_F(GraphFileTest, OneFileIsReadAtATimeAndClientsTakeTurns) {
    start();
    constexpr uint64_t kSize = 128 << 20;
    const std::string huge = writeSparse("huge", kSize);
    const std::string small = writeSparse("small", kSize / 4);
    WireClient reader;
    WireClient other;
    const uint64_t before = bytesRead();
    for (int i = 0; i < 4; ++i) reader.sendCreateGraphFromFile(huge, kRefused);
    ASSERT_TRUE(eventually([&] { return bytesRead() - before > kSize / 100; }));
    other.sendCreateGraphFromFile(small, kRefused);
    (void)other.receive<KelmMsgRspCreateGraph>();
    // After one of the four, of which none was read while the small one was.
    EXPECT_GT(bytesRead() - before, kSize);
    EXPECT_LT(bytesRead() - before, 3 * kSize);
    for (int i = 0; i < 4; ++i) (void)reader.receive<KelmMsgRspCreateGraph>();
}

TEST_F(GraphFileTest, KnownFileIsJoinedWithoutBeingReadAgain) {
    start();
    constexpr uint64_t kSize = 32 << 20;
    const std::string file = writeSparse("file", kSize);
    WireClient client;
    const uint64_t id = client.createGraphFromFile(file).graphId;
    const auto joinsUnread = [&] {
        const uint64_t before = bytesRead();
        EXPECT_EQ(client.createGraphFromFile(file).graphId, id);
        return bytesRead() - before < kSize / 2;
    };
    // Right after a change to the file a further one might not show.
    EXPECT_TRUE(eventually(joinsUnread));
    EXPECT_TRUE(joinsUnread());
    std::ofstream(file, std::ios::in).put('x');
    EXPECT_NE(client.createGraphFromFile(file).graphId, id);
}

TEST_F(GraphFileTest, ReadingStopsWhenItsClientHasGoneOrTheServiceEnds) {
    start();
    constexpr uint64_t kSize = 2ULL << 30;
    const std::string file = writeSparse("huge", kSize);
    const uint64_t before = bytesRead();
    std::optional<WireClient> client(std::in_place);
    client->sendCreateGraphFromFile(file, kRefused);
    ASSERT_TRUE(eventually([&] { return bytesRead() - before > kSize / 100; }));
    client.reset();
    EXPECT_TRUE(noClientIsLeft());
    WireClient next;
    EXPECT_EQ(next.createGraph("blob").head.status, KELM_OK);
    EXPECT_LT(bytesRead() - before, kSize);
    const std::filesystem::directory_iterator all("/proc/self/fd");
    EXPECT_TRUE(std::none_of(begin(all), end(all), [&](const auto& entry) {
        std::error_code gone;
        return std::filesystem::read_symlink(entry, gone) == file;
    }));
    // Nor is the service held up that stops.
    for (int i = 0; i < 2; ++i) next.sendCreateGraphFromFile(file, kRefused);
}

TEST_F(GraphFileTest, ConnectionFarAheadOfItsAnswersIsNotReadForAWhile) {
    start();
    WireClient ahead;
    ahead.sendCreateGraphFromFile(writeSparse("huge", 256 << 20), kRefused);
    const auto query = ahead.make<KelmMsgReqQueryBufferSize>(KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ);
    constexpr int kMoreThanFits = 20000;
    int sent = 0;
    for (; sent < kMoreThanFits && ahead.canSend(); ++sent) ahead.send(query);
    EXPECT_LT(sent, kMoreThanFits);
    EXPECT_FALSE(ahead.hasAnswer());
    WireClient other;  // nobody else is held up
    EXPECT_EQ(ahead.receive<KelmMsgRspCreateGraph>().head.status, KELM_ERROR_INVALID_PARAM);
    for (; sent > 0; --sent) ASSERT_NE(ahead.receive<KelmMsgRspQueryBufferSize>().head.status, 0);
}

TEST_F(GraphManagerTest, OnlyAUserMayDestroyAGraph) {
    start();
    WireClient owner;
    WireClient other;
    const uint64_t id = owner.createGraph("blob").graphId;
    EXPECT_EQ(other.destroyGraph(id), KELM_ERROR_NO_RIGHTS);
    EXPECT_EQ(other.destroyGraph(id + 1), KELM_ERROR_INVALID_GRAPH);
    EXPECT_EQ(other.destroyGraph(id, 99), KELM_ERROR_INVALID_CLIENT);
    EXPECT_EQ(other.queryBufferSize(id, 99).head.status, KELM_ERROR_INVALID_CLIENT);
    EXPECT_EQ(owner.destroyGraph(id), KELM_OK);
    EXPECT_EQ(owner.destroyGraph(id), KELM_ERROR_INVALID_GRAPH);
}

TEST_F(GraphManagerTest, GraphDestroyedWhileItLoadsGivesItsPlaceBack) {
    start(kOneGraph);
    WireClient client;
    device().block(DeviceCall::Allocate);
    client.sendCreateGraph("blob");
    ASSERT_TRUE(eventually([&] { return device().count(DeviceCall::Allocate) == 1; }));
    EXPECT_EQ(client.destroyGraph(1), KELM_OK);  // the create request gets no answer
    device().release(DeviceCall::Allocate);
    EXPECT_TRUE(placeIsGivenBack(client, "other"));
}

// The notice of the load is still under way when the destroy request comes first. One load has
// succeeded; the other failed for want of a device manager, so that nobody confirms its unload.
TEST_F(GraphManagerTest, LateLoadNoticeDoesNotTouchADestroyedGraph) {
    start(R"("service_settings": {"max_graph_number": 2})");
    GatedPlacement placement;
    Port<GraphPlacementListener>::connect([&]() -> GraphPlacementListener& { return placement; });
    WireClient client;
    uint64_t nextId = 1;
    for (const int32_t subclass : {0, 7}) {
        SCOPED_TRACE(subclass);
        placement.loads.close();
        client.sendCreateGraph("blob", "graph", "", subclass);
        ASSERT_TRUE(placement.loads.holds(1));
        EXPECT_EQ(client.destroyGraph(nextId++), KELM_OK);
        placement.loads.open();
    }
    EXPECT_TRUE(placeIsGivenBack(client, "one") && placeIsGivenBack(client, "two"));
    connectPorts();
}

TEST_F(GraphManagerTest, RecordGoesWithTheSecondConfirmationInEitherOrder) {
    start(kOneGraph);
    WireClient client;
    GatedPlacement placement;
    GatedScheduling scheduling;
    Port<GraphPlacementListener>::connect([&]() -> GraphPlacementListener& { return placement; });
    Port<TaskScheduleListener>::connect([&]() -> TaskScheduleListener& { return scheduling; });
    const std::pair<Gate*, Gate*> orders[] = {{&placement.unloads, &scheduling.graphs},
                                              {&scheduling.graphs, &placement.unloads}};
    uint64_t id = client.createGraph("blob").graphId;
    for (const auto& [early, late] : orders) {
        early->close();
        late->close();
        EXPECT_EQ(client.destroyGraph(id), KELM_OK);
        ASSERT_TRUE(early->holds(1) && late->holds(1));
        early->open();
        EXPECT_EQ(client.createGraph("blob").head.status, KELM_ERROR_TOO_MANY_GRAPH);
        late->open();
        ASSERT_TRUE(eventually([&] {
            id = client.createGraph("blob").graphId;
            return id != 0;
        }));
    }
    connectPorts();
}

// A task on a graph that does not load: its id can be guessed before the creator hears of it.
TEST_F(GraphManagerTest, FailedLoadKeepsTheRecordForTasksThatGuessedItsId) {
    start(kOneGraph);
    WireClient creator;
    WireClient guesser;
    DescriptorProbe input;
    device().block(DeviceCall::Allocate);
    device().failAll(DeviceCall::Allocate, KELM_ERROR_GRAPH_VERIFY_FAILED);
    creator.sendCreateGraph("blob");
    ASSERT_TRUE(eventually([&] { return device().count(DeviceCall::Allocate) == 1; }));
    EXPECT_EQ(guesser.infer(1, input).head.status, KELM_OK);
    device().release(DeviceCall::Allocate);
    EXPECT_EQ(creator.receive<KelmMsgRspCreateGraph>().head.status, KELM_ERROR_GRAPH_VERIFY_FAILED);
    EXPECT_TRUE(input.isClosed());
    device().failAll(DeviceCall::Allocate, 0);
    EXPECT_TRUE(placeIsGivenBack(creator, "other"));
}

TEST_F(GraphManagerTest, DumpStaysInItsDirectoryWhateverTheGraphIsCalled) {
    const std::string dumps = dir().path() + "/dumps";
    std::filesystem::create_directory(dumps);
    start(R"("debug_settings": {"dump_graph": "on", "dump_graph_path": ")" + dumps + "\"}");
    WireClient client;
    for (const char* name : {"../../evil.x", "..", "a/b", "..hidden.x"}) {
        EXPECT_EQ(client.createGraph(name, name).head.status, KELM_OK);
    }
    std::set<std::string> stems;
    for (const auto& file : std::filesystem::directory_iterator(dumps)) {
        const std::string text = file.path().filename().string();
        stems.insert(text.substr(0, text.find('_')));
    }
    EXPECT_EQ(stems, (std::set<std::string>{"evil", "", "b", "hidden"}));
}

TEST_F(GraphManagerTest, DumpOfAGraphWithALongNameIsCutToAFileNameBetweenCharacters) {
    const std::string dumps = dir().path() + "/dumps";
    std::filesystem::create_directory(dumps);
    start(R"("debug_settings": {"dump_graph": "on", "dump_graph_path": ")" + dumps + "\"}");
    std::string name;
    while (name.size() < 500) name += "\u20ac";
    EXPECT_EQ(WireClient().createGraph("blob", name).head.status, KELM_OK);
    const std::filesystem::directory_iterator file(dumps);
    ASSERT_NE(file, std::filesystem::directory_iterator());
    const std::string dump = file->path().filename().string();
    EXPECT_GE(dump.size(), 253U);
    EXPECT_EQ(dump.find('_') % 3, 0U) << dump;
}

// Each of them sends a notice to the pool that is busy with them, whose queue is shorter.
TEST_F(GraphManagerTest, BurstOfCreatesThatFailAtOnceDoesNotStandStill) {
    start();
    WireClient client;
    constexpr int kRequests = 300;
    for (int i = 0; i < kRequests; ++i) client.sendCreateGraph(std::to_string(i), "graph", "", 7);
    for (int i = 0; i < kRequests; ++i) {
        ASSERT_EQ(client.receive<KelmMsgRspCreateGraph>().head.status, KELM_ERROR_INVALID_PARAM);
    }
}

TEST_F(GraphManagerTest, PrintsOneColumnForEachLoadedGraph) {
    start(R"("debug_settings": {"info_printer": {"graph_fps": "on", "graph_snapshot_mode": "base",
             "enable": false}})");
    WireClient client;
    EXPECT_EQ(client.createGraph("blob", "a_name_of_20_letters").head.status, KELM_OK);
    testing::internal::CaptureStdout();
    GraphManager::instance().onPrintInfo();
    std::cout.flush();
    const std::string text = testing::internal::GetCapturedStdout();
    for (const char* part :
         {"GraphFps(count=1):\n [a_name_of_20_letters] = (in) 0.00 (out) 0.00\n",
          "GraphSnapshot(RegularPrint):\n| graphId      | 1                 |\n"
          "| graphName    | a_name_...letters |\n",
          "| pendingTime  | 00:00:00          |\n", "| devReqNum    | 0.50              |\n",
          "| deviceNum    | 1 / 1             |\n",
          "| streamId     |                   |\n+--------------+-------------------+\n"}) {
        EXPECT_NE(text.find(part), std::string::npos) << part << "\nin\n" << text;
    }
}

TEST_F(GraphManagerTest, WayDownEndsWithADeviceThatDoesNotLetGo) {
    start();
    WireClient client;
    EXPECT_EQ(client.createGraph("blob").head.status, KELM_OK);
    device().block(DeviceCall::Deallocate);
    const auto begin = std::chrono::steady_clock::now();
    GraphManager::instance().removeAllGraphs();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    device().release(DeviceCall::Deallocate);
    GraphManager::instance().removeAllGraphs();  // waits for it, and asks the device nothing anew
    EXPECT_EQ(device().deallocated().size(), 1u);
}

}  // namespace
}  // namespace kelm
