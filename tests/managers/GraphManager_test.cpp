#include "managers/GraphManager.h"

#include "fakes/FailingMemory.h"
#include "fakes/FakeGraphPlacementListener.h"
#include "fakes/FakeTaskScheduleListener.h"
#include "managers/GraphBlob.h"
#include "managers/GraphRegistry.h"
#include "managers/ManagersFixture.h"
#include "managers/TaskManager.h"
#include "utils/PeerCredentials.h"
#include "utils/Port.h"

namespace kelm {
namespace {

constexpr char kOneGraph[] = R"("service_settings": {"max_graph_number": 1})";

class GraphManagerTest : public ScriptedFixture {
 protected:
    static GraphWish fromFile(const std::string& path, const std::string& tag = "") {
        return {"", "", tag, "", 0, path};
    }
    // With a tag that no device has: its requests are answered as soon as it is read.
    static GraphWish refused(const std::string& path) { return fromFile(path, "tag"); }
    const TempDir& dir() const { return service().files(); }
    std::string writeSparse(const char* name, uint64_t size) {
        const std::string path = dir().write(name, "");
        std::filesystem::resize_file(path, size);
        return path;
    }
    // From files and sockets, by this process.
    static uint64_t bytesRead() {
        std::ifstream io("/proc/self/io");
        std::string name;
        uint64_t count = 0;
        io >> name >> count;
        return count;
    }
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
    EXPECT_EQ(third.destroyGraph(loaded.graphId), KELM_ERROR_NO_RIGHTS);
    EXPECT_EQ(third.createGraph({"blob"}).graphId, loaded.graphId);
    EXPECT_EQ(third.queryBufferSize(loaded.graphId).outputBufferSize, 300U + 120U + 104U);
    // Another tag is another graph, which no device here may take.
    EXPECT_EQ(third.createGraph({"blob", "graph", "tag"}).head.status, KELM_ERROR_INVALID_PARAM);
    EXPECT_EQ(device().count(DeviceCall::Allocate), 1);
}

TEST_F(GraphManagerTest, RequestsThatWaitForALoadAreBoundedAndLeaveWithTheirConnections) {
    start();
    device().block(DeviceCall::Allocate);
    WireClient patient = connect();
    DescriptorProbe useless;
    patient.sendCreateGraph({"blob"}, {useless.get()});
    useless.sent();
    EXPECT_TRUE(useless.isClosed());
    ASSERT_TRUE(isReached(DeviceCall::Allocate));
    const auto countNumbers = [] {
        std::vector<std::shared_ptr<IPC::ConnectionUDS>> taken;
        while (auto connection = IPC::ConnectionUDS::tryMake(nullptr)) taken.push_back(connection);
        return taken.size();
    };
    const size_t before = countNumbers();
    for (const bool isOwn : {true, false}) {
        WireClient hasty = connect();
        GraphWish wish{"blob"};
        if (!isOwn) wish.client = patient.id();
        for (int i = 0; i <= GraphRegistry::kMostWaiting; ++i) hasty.sendCreateGraph(wish);
        const auto answer = (isOwn ? hasty : patient).receive<KelmMsgRspCreateGraph>();
        EXPECT_EQ(answer.head.status, KELM_ERROR_TOO_MANY_GRAPH);
        hasty.hangUp();
        EXPECT_TRUE(eventually([&] {
            (void)connect().createGraph(fromFile("/missing"));
            return countNumbers() == before;
        }));
    }
    device().release(DeviceCall::Allocate);
    EXPECT_EQ(patient.receive<KelmMsgRspCreateGraph>().head.status, KELM_OK);
}

TEST_F(GraphManagerTest, IdentityByNameKeepsOneBlobUnderTwoNamesApart) {
    start(R"("debug_settings": {"graph_identity": "name"})");
    WireClient client = connect();
    const uint64_t one = client.createGraph({"blob", "one"}).graphId;
    EXPECT_NE(client.createGraph({"blob", "two"}).graphId, one);
    EXPECT_EQ(client.createGraph({"blob", "one"}).graphId, one);
}

TEST_F(GraphManagerTest, PathsThatAreNoGraphFileAreRefusedUnread) {
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

TEST_F(GraphManagerTest, GraphWithoutMemoryForItIsAnsweredAndItsClientGoesOn) {
    WireClient client = startAndConnect();
    const GraphWish small{"blob"};
    const GraphWish large{std::string(3 << 20, 'g'), "large"};
    const GraphWish file = fromFile(writeSparse("file", 3 << 20));
    // A block begins with 256 KB and grows with its bytes; of a file all is needed at once.
    for (const auto& [wish, bytes] :
         {std::pair{large, 200000}, {large, 2 << 20}, {file, 2 << 20}}) {
        SCOPED_TRACE(testing::Message() << wish.path << " " << bytes);
        {
            const NoMemoryFrom want(static_cast<size_t>(bytes));
            EXPECT_EQ(client.createGraph(wish).head.status, KELM_ERROR_OUT_OF_MEMORY);
        }
        EXPECT_NE(client.createGraph(small).graphId, 0U);
    }
    EXPECT_TRUE(client.infers(client.createGraph(large).graphId));
}

TEST(GraphRegistryTest, RecordThatFindsNoMemoryLeavesNoName) {
    GraphRegistry registry(9, false);
    for (const size_t want : {1, 64}) {  // a name's node is smaller than a record's
        auto record = std::make_unique<KelmGraph>(7, 1, "graph", 1);
        {
            const NoMemoryFrom none(want);
            EXPECT_THROW((void)registry.enter(std::move(record)), std::bad_alloc);
        }
        EXPECT_EQ(registry.find(7), nullptr);
    }
}

TEST_F(GraphManagerTest, OneFileIsReadAtATimeAndClientsTakeTurns) {
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

TEST_F(GraphManagerTest, KnownFileIsJoinedWithoutBeingReadAgain) {
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

TEST_F(GraphManagerTest, ReadingStopsWhenItsClientVanishesOrTheServiceEnds) {
    start();
    constexpr uint64_t kSize = 2ULL << 30;
    const std::string file = writeSparse("huge", kSize);
    const uint64_t before = bytesRead();
    const size_t descriptorsBefore = descriptors();
    WireClient client = connect();
    client.sendCreateGraph(refused(file));
    ASSERT_TRUE(eventually([&] { return bytesRead() - before > kSize / 100; }));
    client.hangUp();
    EXPECT_TRUE(eventually([&] { return descriptors() <= descriptorsBefore; }));
    WireClient next = connect();
    const uint64_t id = next.createGraph({"blob"}).graphId;
    EXPECT_NE(id, 0U);
    EXPECT_LT(bytesRead() - before, kSize);
    // A client that is far ahead, so that it is not read, and whose sender meets the hang-up.
    WireClient ahead = connect();
    EXPECT_GT(ahead.flood(ahead.makeInfer(id), 2000), 0);
    ASSERT_TRUE(eventually([&] { return ahead.unread() > 50000; }));
    for (int i = 0; i < 2; ++i) ahead.sendCreateGraph(refused(file));
    (void)ahead.flood(ahead.make<KelmMsgReqQueryBufferSize>(KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ),
                      20000, 50ms);
    ahead.hangUp();
    EXPECT_TRUE(eventually([&] { return descriptors() <= descriptorsBefore + 2; }));
    // Nor do these hold up the service at its end.
    for (int i = 0; i < 2; ++i) next.sendCreateGraph(refused(file));
}

TEST_F(GraphManagerTest, ConnectionFarAheadOfItsFilesIsNotReadAndKeepsItsOrder) {
    WireClient ahead = startAndConnect();
    constexpr uint64_t kSize = 256 << 20;
    const std::string huge = writeSparse("huge", kSize);
    const uint64_t before = bytesRead();
    for (int i = 0; i < 2; ++i) ahead.sendCreateGraph(refused(huge));
    constexpr int kMoreThanFits = 20000;
    const int sent =
        ahead.flood(ahead.make<KelmMsgReqQueryBufferSize>(KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ),
                    kMoreThanFits, 50ms);
    EXPECT_LT(sent, kMoreThanFits);
    WireClient other = connect();
    EXPECT_EQ(other.createGraph({"blob"}).head.status, KELM_OK);
    EXPECT_TRUE(!ahead.canReceive() || bytesRead() - before >= kSize) << "before the first file";
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(ahead.receive<KelmMsgRspCreateGraph>().head.status, KELM_ERROR_INVALID_PARAM);
    }
    for (int i = 0; i < sent; ++i) {
        ASSERT_NE(ahead.receive<KelmMsgRspQueryBufferSize>().head.status, KELM_OK);
    }
}

// The notice of the load is still under way when the destroy request comes first. One load has
// succeeded; the other failed for want of a device manager, so that no device confirms its unload.
TEST_F(GraphManagerTest, LateLoadNoticeDoesNotTouchADestroyedGraph) {
    start(R"("service_settings": {"max_graph_number": 2})");
    GraphManager& graphs = GraphManager::instance();
    WireClient client = connect();
    uint64_t nextId = 1;
    for (const int32_t subclass : {0, 7}) {
        SCOPED_TRACE(subclass);
        FakeGraphPlacementListener placement;
        Port<GraphPlacementListener>::connect([&]() -> auto& { return placement; });
        client.sendCreateGraph({"blob", "graph", "", "", subclass});
        ASSERT_TRUE(eventually([&] { return !placement.loads().empty(); }));
        EXPECT_EQ(client.destroyGraph(nextId++), KELM_OK);
        connectPorts();
        for (KelmGraph* graph : placement.unloads()) graphs.enqueueNotifyUnloadGraphDone(graph);
        const auto [graph, error] = placement.loads().front();
        graphs.enqueueNotifyLoadGraphDone(graph, error);
    }
    EXPECT_TRUE(placeIsGivenBack(client, "one") && placeIsGivenBack(client, "two"));
}

TEST_F(GraphManagerTest, RecordIsDestroyedAtTheSecondConfirmationInEitherOrder) {
    start(kOneGraph);
    WireClient client = connect();
    for (const bool deviceFirst : {true, false}) {
        SCOPED_TRACE(deviceFirst);
        const uint64_t id = placeIsGivenBack(client, "blob");
        FakeGraphPlacementListener placement;
        FakeTaskScheduleListener scheduling;
        Port<GraphPlacementListener>::connect([&]() -> auto& { return placement; });
        Port<TaskScheduleListener>::connect([&]() -> auto& { return scheduling; });
        EXPECT_EQ(client.createGraph({"blob"}).head.status, KELM_ERROR_TOO_MANY_GRAPH);  // a twin
        EXPECT_EQ(client.destroyGraph(id), KELM_OK);
        EXPECT_EQ(client.destroyGraph(id), KELM_ERROR_INVALID_GRAPH);
        ASSERT_TRUE(eventually([&] {
            return !placement.unloads().empty() && !scheduling.descheduledGraphs().empty();
        }));
        connectPorts();
        const auto confirm = [graph = placement.unloads()[0]](bool byDevice) {
            byDevice ? GraphManager::instance().enqueueNotifyUnloadGraphDone(graph)
                     : TaskManager::instance().enqueueDescheduleGraphDone(graph);
        };
        confirm(deviceFirst);
        EXPECT_EQ(client.createGraph({"blob"}).head.status, KELM_ERROR_TOO_MANY_GRAPH);
        confirm(!deviceFirst);
    }
    EXPECT_TRUE(placeIsGivenBack(client, "blob"));
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
    const std::string names[] = {"../../evil.x", "..", "a/b", "..hidden.x", longName};
    WireClient client = connect();
    for (const std::string& name : names) {
        EXPECT_EQ(client.createGraph({name, name}).head.status, KELM_OK);
    }
    std::multiset<std::string> stems;
    for (const auto& file : std::filesystem::directory_iterator(dumps.path())) {
        const std::string text = file.path().filename().string();
        const bool cut = text.size() >= 253;  // what a file name may have, between two characters
        const std::string stem = text.substr(0, text.find('_'));
        stems.insert(cut && stem.size() % 3 == 0 ? "cut" : stem);
    }
    EXPECT_EQ(stems, (std::multiset<std::string>{"", "b", "cut", "evil", "hidden"}));
}

// Each of them sends a notice to the pool that is busy with them, whose queue is shorter.
TEST_F(GraphManagerTest, BurstOfCreatesThatFailAtOnceDoesNotStandStill) {
    WireClient client = startAndConnect();
    constexpr int kRequests = 300;
    for (int i = 0; i < kRequests; ++i) {
        client.sendCreateGraph({std::to_string(i), "graph", "", "", i % 2 == 0 ? 7 : -77});
    }
    for (int i = 0; i < kRequests; ++i) {
        ASSERT_EQ(client.receive<KelmMsgRspCreateGraph>().head.status, KELM_ERROR_INVALID_PARAM);
    }
}

TEST_F(GraphManagerTest, EndIsNotHeldUpByADeviceThatDoesNotUnload) {
    WireClient client = startAndConnect();
    EXPECT_EQ(client.createGraph({"blob"}).head.status, KELM_OK);
    device().block(DeviceCall::Deallocate);
    auto ended = std::async(std::launch::async, [] { GraphManager::instance().removeAllGraphs(); });
    EXPECT_EQ(ended.wait_for(30s), std::future_status::ready);
    device().release(DeviceCall::Deallocate);
    GraphManager::instance().removeAllGraphs();  // waits for it, and asks the device nothing anew
    EXPECT_EQ(device().deallocated().size(), 1U);
}

constexpr uint64_t kThreeSlices = 2 * GraphBlob::kSliceBytes + 1;

GraphBlob readWhole(const std::string& path) {
    GraphBlob blob = GraphBlob::fromFile(path.c_str(), *PeerCredentials::ofThisProcess());
    while (!blob.advance()) {
    }
    return blob;
}

TEST(GraphBlobTest, FileThatChangesWhileItIsReadHasTheDigestOfItsBytesAndNoProvenIdentity) {
    const TempDir dir;
    std::string bytes(kThreeSlices, 'x');
    const std::string path = dir.write("file", bytes);
    // Not before the clock has moved on from when it was written.
    EXPECT_TRUE(eventually([&] { return readWhole(path).isIdentityProven(); }));
    EXPECT_EQ(readWhole(path).getHash(), sha256ForString(bytes));

    GraphBlob blob = GraphBlob::fromFile(path.c_str(), *PeerCredentials::ofThisProcess());
    EXPECT_FALSE(blob.advance());
    std::ofstream(path, std::ios::in).write("yyy", 3);  // of what was read already
    EXPECT_FALSE(blob.advance());
    EXPECT_TRUE(blob.advance());
    EXPECT_EQ(blob.getHash(), sha256ForString(bytes));
    EXPECT_FALSE(blob.isIdentityProven());
    EXPECT_NE(readWhole(path).getHash(), blob.getHash());
}

TEST(GraphBlobTest, FileDigestsOldestMakesRoomAndEveryPartOfAStateCounts) {
    using FileIdentity = GraphBlob::FileIdentity;
    GraphBlob::FileDigests digests;
    struct stat status {};
    for (size_t i = 0; i <= GraphBlob::FileDigests::kMost; ++i) {
        status.st_ino = i;
        digests.remember(FileIdentity(status), std::to_string(i));
    }
    EXPECT_EQ(*digests.find(FileIdentity(status)), std::to_string(GraphBlob::FileDigests::kMost));
    struct stat others[] = {status, status, status, status};
    ++others[0].st_dev;
    ++others[1].st_size;
    ++others[2].st_mtim.tv_nsec;
    ++others[3].st_ctim.tv_nsec;
    for (const auto& other : others) EXPECT_EQ(digests.find(FileIdentity(other)), nullptr);
    status.st_ino = 0;
    EXPECT_EQ(digests.find(FileIdentity(status)), nullptr);
}

}  // namespace
}  // namespace kelm
