#include "managers/GraphManager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
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

class GraphManagerTest : public ScriptedFixture {};

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
    WireClient first = connect();
    WireClient second = connect();
    first.sendCreateGraph({"blob", "one"});
    ASSERT_TRUE(isReached(DeviceCall::Allocate));
    second.sendCreateGraph({"blob", "two"});
    EXPECT_EQ(first.queryBufferSize(99).head.status, KELM_ERROR_INVALID_GRAPH);
    EXPECT_FALSE(second.canReceive());
    device().release(DeviceCall::Allocate);
    const auto loaded = first.receive<KelmMsgRspCreateGraph>();
    EXPECT_EQ(loaded.head.status, KELM_OK);
    EXPECT_EQ(loaded.outputBufferSize, 4000U);
    EXPECT_EQ(second.receive<KelmMsgRspCreateGraph>().graphId, loaded.graphId);
    WireClient third = connect();
    EXPECT_EQ(third.createGraph({"blob"}).graphId, loaded.graphId);
    EXPECT_EQ(third.queryBufferSize(loaded.graphId).outputBufferSize, 300U + 120U + 104U);
    // Another tag is another graph, which no device here may take.
    EXPECT_EQ(third.createGraph({"blob", "graph", "tag"}).head.status, KELM_ERROR_INVALID_PARAM);
    EXPECT_EQ(device().count(DeviceCall::Allocate), 1);
}

TEST_F(GraphManagerTest, IdentityByNameKeepsOneBlobUnderTwoNamesApart) {
    start(R"("debug_settings": {"graph_identity": "name"})");
    WireClient client = connect();
    const uint64_t one = client.createGraph({"blob", "one"}).graphId;
    EXPECT_NE(client.createGraph({"blob", "two"}).graphId, one);
    EXPECT_EQ(client.createGraph({"blob", "one"}).graphId, one);
}

TEST_F(GraphManagerTest, LimitRefusesTwinsTooAndCountsWhatIsBeingUnloaded) {
    start(kOneGraph);
    WireClient client = connect();
    const uint64_t id = client.createGraph({"blob"}).graphId;
    EXPECT_EQ(client.createGraph({"blob"}).head.status, KELM_ERROR_TOO_MANY_GRAPH);
    device().block(DeviceCall::Deallocate);
    EXPECT_EQ(client.destroyGraph(id), KELM_OK);
    EXPECT_EQ(client.createGraph({"other"}).head.status, KELM_ERROR_TOO_MANY_GRAPH);
    device().release(DeviceCall::Deallocate);
    EXPECT_TRUE(placeIsGivenBack(client, "other"));
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
    // With a tag that no device has: its requests are answered as soon as it is read.
    static GraphWish refused(const std::string& path) {
        GraphWish wish{"", "", "tag"};
        wish.path = path;
        return wish;
    }
    static GraphWish fromFile(const std::string& path) {
        GraphWish wish{};
        wish.path = path;
        return wish;
    }
    const TempDir& dir() const { return service().files(); }
    std::string writeSparse(const char* name, uint64_t size) {
        const std::string path = dir().write(name, "");
        std::filesystem::resize_file(path, size);
        return path;
    }
};

TEST_F(GraphFileTest, PathsThatAreNoGraphFileAreRefusedUnread) {
    start();
    const std::string fifo = dir().path() + "/fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    WireClient client = connect();
    for (const std::string& path : {dir().path() + "/missing", dir().path(), fifo,
                                    std::string("/dev/zero"), writeSparse("huge", 5ULL << 30)}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(client.createGraph(fromFile(path)).head.status, KELM_ERROR_GRAPH_DIGEST_FAILED);
    }
    const uint64_t id = client.createGraph(fromFile(dir().write("file", "blob"))).graphId;
    EXPECT_EQ(client.createGraph({"blob"}).graphId, id);
    const std::string empty = dir().write("empty", "");
    const uint64_t fromEmpty = client.createGraph(fromFile(empty)).graphId;
    EXPECT_NE(fromEmpty, 0U);
    EXPECT_NE(client.createGraph(fromFile(empty)).graphId, fromEmpty);
}

TEST_F(GraphFileTest, OthersAreServedWhileAFileIsReadAndTheOrderOfOneConnectionStays) {
    start();
    const std::string huge = writeSparse("huge", 256 << 20);
    WireClient reader = connect();
    WireClient other = connect();
    for (int i = 0; i < 2; ++i) reader.sendCreateGraph(refused(huge));
    reader.send(reader.make<KelmMsgReqQueryBufferSize>(KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ));
    EXPECT_EQ(other.createGraph({"blob"}).head.status, KELM_OK);
    EXPECT_FALSE(reader.canReceive());
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
    WireClient reader = connect();
    WireClient other = connect();
    const uint64_t before = bytesRead();
    for (int i = 0; i < 4; ++i) reader.sendCreateGraph(refused(huge));
    ASSERT_TRUE(eventually([&] { return bytesRead() - before > kSize / 100; }));
    (void)other.createGraph(refused(small));
    // After one of the four, of which none was read while the small one was.
    EXPECT_GT(bytesRead() - before, kSize);
    EXPECT_LT(bytesRead() - before, 3 * kSize);
    for (int i = 0; i < 4; ++i) (void)reader.receive<KelmMsgRspCreateGraph>();
}

TEST_F(GraphFileTest, KnownFileIsJoinedWithoutBeingReadAgain) {
    start();
    constexpr uint64_t kSize = 32 << 20;
    const std::string file = writeSparse("file", kSize);
    WireClient client = connect();
    const uint64_t id = client.createGraph(fromFile(file)).graphId;
    const auto joinsUnread = [&] {
        const uint64_t before = bytesRead();
        EXPECT_EQ(client.createGraph(fromFile(file)).graphId, id);
        return bytesRead() - before < kSize / 2;
    };
    // Right after a change to the file a further one might not show.
    EXPECT_TRUE(eventually(joinsUnread));
    EXPECT_TRUE(joinsUnread());
    std::ofstream(file, std::ios::in).put('x');
    EXPECT_NE(client.createGraph(fromFile(file)).graphId, id);
}

TEST_F(GraphFileTest, ReadingStopsWhenItsClientVanishesOrTheServiceEnds) {
    start();
    constexpr uint64_t kSize = 2ULL << 30;
    const std::string file = writeSparse("huge", kSize);
    const uint64_t before = bytesRead();
    WireClient client = connect();
    client.sendCreateGraph(refused(file));
    ASSERT_TRUE(eventually([&] { return bytesRead() - before > kSize / 100; }));
    client.hangUp();
    EXPECT_TRUE(noClientIsLeft());
    WireClient next = connect();
    EXPECT_EQ(next.createGraph({"blob"}).head.status, KELM_OK);
    EXPECT_LT(bytesRead() - before, kSize);
    const std::filesystem::directory_iterator all("/proc/self/fd");
    EXPECT_TRUE(std::none_of(begin(all), end(all), [&](const auto& entry) {
        std::error_code closed;
        return std::filesystem::read_symlink(entry, closed) == file;
    }));
    // Nor do these hold up the service at its end.
    for (int i = 0; i < 2; ++i) next.sendCreateGraph(refused(file));
}

TEST_F(GraphFileTest, ConnectionFarAheadOfItsAnswersIsNotReadForAWhile) {
    start();
    WireClient ahead = connect();
    ahead.sendCreateGraph(refused(writeSparse("huge", 256 << 20)));
    constexpr int kMoreThanFits = 20000;
    const int sent =
        ahead.flood(ahead.make<KelmMsgReqQueryBufferSize>(KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ),
                    kMoreThanFits, WireClient::Millis(50));
    EXPECT_LT(sent, kMoreThanFits);
    EXPECT_FALSE(ahead.canReceive());
    (void)connect();  // no other is held up
    EXPECT_EQ(ahead.receive<KelmMsgRspCreateGraph>().head.status, KELM_ERROR_INVALID_PARAM);
    for (int i = 0; i < sent; ++i) {
        ASSERT_NE(ahead.receive<KelmMsgRspQueryBufferSize>().head.status, KELM_OK);
    }
}

TEST_F(GraphManagerTest, OnlyAUserMayDestroyAGraph) {
    start();
    WireClient owner = connect();
    WireClient other = connect();
    const uint64_t id = owner.createGraph({"blob"}).graphId;
    EXPECT_EQ(other.destroyGraph(id), KELM_ERROR_NO_RIGHTS);
    EXPECT_EQ(other.destroyGraph(id + 1), KELM_ERROR_INVALID_GRAPH);
    WireClient stranger(path());
    EXPECT_EQ(stranger.destroyGraph(id), KELM_ERROR_INVALID_CLIENT);
    EXPECT_EQ(stranger.queryBufferSize(id).head.status, KELM_ERROR_INVALID_CLIENT);
    EXPECT_EQ(owner.destroyGraph(id), KELM_OK);
    EXPECT_EQ(owner.destroyGraph(id), KELM_ERROR_INVALID_GRAPH);
}

TEST_F(GraphManagerTest, GraphDestroyedWhileItLoadsGivesItsPlaceBack) {
    start(kOneGraph);
    WireClient client = connect();
    device().block(DeviceCall::Allocate);
    client.sendCreateGraph({"blob"});
    ASSERT_TRUE(isReached(DeviceCall::Allocate));
    EXPECT_EQ(client.destroyGraph(1), KELM_OK);  // the create request gets no answer
    device().release(DeviceCall::Allocate);
    EXPECT_TRUE(placeIsGivenBack(client, "other"));
}

// The notice of the load is still under way when the destroy request comes first. One load has
// succeeded; the other failed for want of a device manager, so that no device confirms its unload.
TEST_F(GraphManagerTest, LateLoadNoticeDoesNotTouchADestroyedGraph) {
    start(R"("service_settings": {"max_graph_number": 2})");
    GatedPlacement placement;
    Port<GraphPlacementListener>::connect([&]() -> GraphPlacementListener& { return placement; });
    WireClient client = connect();
    uint64_t nextId = 1;
    for (const int32_t subclass : {0, 7}) {
        SCOPED_TRACE(subclass);
        placement.loads.close();
        client.sendCreateGraph({"blob", "graph", "", "", subclass});
        ASSERT_TRUE(placement.loads.holds(1));
        EXPECT_EQ(client.destroyGraph(nextId++), KELM_OK);
        placement.loads.open();
    }
    EXPECT_TRUE(placeIsGivenBack(client, "one") && placeIsGivenBack(client, "two"));
    connectPorts();
}

TEST_F(GraphManagerTest, RecordIsDestroyedAtTheSecondConfirmationInEitherOrder) {
    start(kOneGraph);
    WireClient client = connect();
    GatedPlacement placement;
    GatedScheduling scheduling;
    Port<GraphPlacementListener>::connect([&]() -> GraphPlacementListener& { return placement; });
    Port<TaskScheduleListener>::connect([&]() -> TaskScheduleListener& { return scheduling; });
    const std::pair<Gate*, Gate*> orders[] = {{&placement.unloads, &scheduling.graphs},
                                              {&scheduling.graphs, &placement.unloads}};
    uint64_t id = client.createGraph({"blob"}).graphId;
    for (const auto& [early, late] : orders) {
        early->close();
        late->close();
        EXPECT_EQ(client.destroyGraph(id), KELM_OK);
        ASSERT_TRUE(early->holds(1) && late->holds(1));
        early->open();
        EXPECT_EQ(client.createGraph({"blob"}).head.status, KELM_ERROR_TOO_MANY_GRAPH);
        late->open();
        ASSERT_TRUE(eventually([&] {
            id = client.createGraph({"blob"}).graphId;
            return id != 0;
        }));
    }
    connectPorts();
}

// A task on a graph that does not load: its id can be guessed before the creator hears of it.
TEST_F(GraphManagerTest, FailedLoadKeepsTheRecordForTasksThatGuessedItsId) {
    start(kOneGraph);
    WireClient creator = connect();
    WireClient guesser = connect();
    DescriptorProbe input;
    device().block(DeviceCall::Allocate);
    device().failAll(DeviceCall::Allocate, KELM_ERROR_GRAPH_VERIFY_FAILED);
    creator.sendCreateGraph({"blob"});
    ASSERT_TRUE(isReached(DeviceCall::Allocate));
    EXPECT_EQ(infer(guesser, 1, input).head.status, KELM_OK);
    device().release(DeviceCall::Allocate);
    EXPECT_EQ(creator.receive<KelmMsgRspCreateGraph>().head.status, KELM_ERROR_GRAPH_VERIFY_FAILED);
    EXPECT_TRUE(input.isClosed());
    device().failAll(DeviceCall::Allocate, 0);
    EXPECT_TRUE(placeIsGivenBack(creator, "other"));
}

TEST_F(GraphManagerTest, DumpIsAFileInItsDirectoryWhateverTheGraphIsCalled) {
    const TempDir dumps;
    start(R"("debug_settings": {"dump_graph": "on", "dump_graph_path": ")" + dumps.path() + "\"}");
    std::string longName;
    while (longName.size() < 500) longName += "\u20ac";
    WireClient client = connect();
    for (const std::string& name : {std::string("../../evil.x"), std::string(".."),
                                    std::string("a/b"), std::string("..hidden.x"), longName}) {
        EXPECT_EQ(client.createGraph({name, name}).head.status, KELM_OK);
    }
    std::set<std::string> stems;
    for (const auto& file : std::filesystem::directory_iterator(dumps.path())) {
        const std::string text = file.path().filename().string();
        const std::string stem = text.substr(0, text.find('_'));
        if (stem.size() < 100) {
            stems.insert(stem);
            continue;
        }
        EXPECT_GE(text.size(), 253U);            // cut to what a file name may have
        EXPECT_EQ(stem.size() % 3, 0U) << text;  // between two characters
    }
    EXPECT_EQ(stems, (std::set<std::string>{"evil", "", "b", "hidden"}));
    const std::filesystem::directory_iterator all(dumps.path());
    EXPECT_EQ(std::distance(begin(all), end(all)), 5);
}

// Each of them sends a notice to the pool that is busy with them, whose queue is shorter.
TEST_F(GraphManagerTest, BurstOfCreatesThatFailAtOnceDoesNotStandStill) {
    start();
    WireClient client = connect();
    constexpr int kRequests = 300;
    for (int i = 0; i < kRequests; ++i) {
        client.sendCreateGraph({std::to_string(i), "graph", "", "", 7});
    }
    for (int i = 0; i < kRequests; ++i) {
        ASSERT_EQ(client.receive<KelmMsgRspCreateGraph>().head.status, KELM_ERROR_INVALID_PARAM);
    }
}

TEST_F(GraphManagerTest, EndIsNotHeldUpByADeviceThatDoesNotUnload) {
    start();
    WireClient client = connect();
    EXPECT_EQ(client.createGraph({"blob"}).head.status, KELM_OK);
    device().block(DeviceCall::Deallocate);
    const auto begin = std::chrono::steady_clock::now();
    GraphManager::instance().removeAllGraphs();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    device().release(DeviceCall::Deallocate);
    GraphManager::instance().removeAllGraphs();  // waits for it, and asks the device nothing anew
    EXPECT_EQ(device().deallocated().size(), 1U);
}

}  // namespace
}  // namespace kelm
