#include "records/KelmTask.h"

#include "fakes/SimulatedLibraries.h"
#include "protocol/src/KelmProtocol.h"
#include "records/BufferAllocator.h"
#include "records/KelmClient.h"
#include "records/KelmGraph.h"
#include "records/KelmTaskParam.h"
#include "utils/BlockCache.h"
#include "utils/UniqueFd.h"

namespace kelm {
namespace {

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }
int openSomething() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }

KelmBuffer bufferOf(uint32_t type, int fd) {
    KelmBuffer buffer{};
    buffer.type = type;
    buffer.fd = fd;
    return buffer;
}

class KelmTaskTest : public testing::Test {
 protected:
    std::unique_ptr<KelmTask> makeTask(KelmTaskParam* param = nullptr) {
        return std::make_unique<KelmTask>(7, &client, &graph, param, &request);
    }
    static MessagePtr makeDoneMessage() {
        return MessagePtr(kelmAllocMessage(KELM_MESSAGE_TASK_DONE_EVT));
    }

    KelmClient client{3, "a client with a long name", nullptr, 2, 1};
    KelmGraph graph{5, 3, "a graph with a long name", 1};
    KelmMsgReqInferTask request = [] {
        KelmMsgReqInferTask wanted{};
        wanted.head.needResponse = 1;
        return wanted;
    }();
};

// A task is destroyed with the message that it holds: a leak or a double release shows under ASan.
TEST_F(KelmTaskTest, DoneMessageWaitsForTheCreateAnswer) {
    const auto early = makeTask();
    MessagePtr message = makeDoneMessage();
    const KelmMsgBase* const sent = message.get();
    EXPECT_TRUE(early->setTaskDoneResponse(message));
    EXPECT_EQ(message, nullptr);
    EXPECT_EQ(early->setSendCreateResponseDone().get(), sent);
    EXPECT_EQ(early->setSendCreateResponseDone(), nullptr);

    const auto late = makeTask();
    EXPECT_EQ(late->setSendCreateResponseDone(), nullptr);
    message = makeDoneMessage();
    EXPECT_FALSE(late->setTaskDoneResponse(message));
    EXPECT_NE(message, nullptr);

    const auto neverSent = makeTask();
    EXPECT_TRUE(neverSent->setTaskDoneResponse(message));

    request.head.needResponse = 0;  // no create answer, so nothing waits for one
    message = makeDoneMessage();
    EXPECT_FALSE(makeTask()->setTaskDoneResponse(message));
}

TEST_F(KelmTaskTest, DescriptorsOfATaskAreClosedOnceWithIt) {
    std::vector<int> fds;
    for (int i = 0; i < 3; ++i) fds.push_back(openSomething());
    // The type is the client's word: an unknown one does not keep a descriptor open.
    auto task = makeTask(KelmTaskParam::create(bufferOf(KELM_BUFFER_ION, fds[0]),
                                               bufferOf(KELM_BUFFER_SHARE_MEMORY, fds[1]),
                                               bufferOf(77, fds[2])));
    for (const int fd : fds) EXPECT_TRUE(isOpen(fd));
    task.reset();
    for (const int fd : fds) EXPECT_FALSE(isOpen(fd));

    const bool hadInput = isOpen(0);
    delete KelmTaskParam::create(bufferOf(1, 0), bufferOf(1, -1), bufferOf(2, 0));
    EXPECT_EQ(isOpen(0), hadInput);

    KelmBuffer buffer = bufferOf(KELM_BUFFER_ION, openSomething());
    const int fd = buffer.fd;
    EXPECT_EQ(BufferAllocator::instance().free(&buffer), KELM_OK);
    EXPECT_EQ(openSomething(), fd);  // by now another buffer's number
    EXPECT_EQ(BufferAllocator::instance().free(&buffer), KELM_OK);
    EXPECT_TRUE(isOpen(fd));
    ::close(fd);
}

TEST_F(KelmTaskTest, CacheKeepsABoundedNumberOfBlocks) {
    BlockCache cache(64, 2);
    BlockCache::Local local;
    std::set<void*> blocks;
    const auto takeAll = [&] {
        while (blocks.size() < 100) blocks.insert(cache.take(local));  // none is handed out twice
    };
    const auto giveAll = [&] {
        for (void* block : blocks) cache.give(local, block);
        blocks.clear();
    };
    takeAll();
    {
        const BlockCache::End end(cache, local);
        giveAll();
        EXPECT_LE(cache.keptBlocks() + local.count, 20u);
        takeAll();
        EXPECT_EQ(cache.keptBlocks() + local.count, 0u);
        giveAll();
    }
    EXPECT_LE(cache.keptBlocks(), 2u);
    EXPECT_EQ(local.count, 0u);
    cache.give(local, cache.take(local));  // after the end of the thread's share
    EXPECT_EQ(local.count, 0u);
}

// Each failure leaves no handle and no descriptor but the client's own.
TEST(BufferAllocatorTest, FailureLeavesNoHandleAndTheProcessGoesOn) {
    const struct {
        std::string failing;  // none: the mapping
        bool byImport, byAlloc;
    } rows[] = {{"ion_open", true, true},    {"ion_alloc_only", false, true},
                {"ion_share", false, true},  {"", true, true},
                {"ion_import", true, false}, {"ion_get_info", true, false}};
    constexpr size_t kMoreThanTheAddresses = size_t{1} << 50;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.failing);
        const bool isMapping = row.failing.empty();
        SimulatedIon ion;
        KelmBuffer buffer = SimulatedIon::makeBuffer("tensor");
        if (isMapping) {
            const UniqueFd writable(buffer.fd);
            const std::string path = "/proc/self/fd/" + std::to_string(buffer.fd);
            buffer.fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        } else {
            ion.order("fail - " + row.failing + " -1");
        }
        {
            BufferAllocator allocator;
            KelmBuffer made{};
            const int fd = buffer.fd;
            EXPECT_TRUE(!row.byImport ||
                        allocator.import(fd, &buffer) == KELM_ERROR_BUFFER_ALLOC_FAILED);
            EXPECT_TRUE(!row.byAlloc || allocator.alloc(isMapping ? kMoreThanTheAddresses : 4,
                                                        &made) == KELM_ERROR_BUFFER_ALLOC_FAILED);
            EXPECT_EQ(buffer.buffer, 0u);
            EXPECT_EQ(made.fd, 0);
            EXPECT_EQ(ion.live(), 0);
            EXPECT_TRUE(isOpen(fd)) << "the client's, whose task closes it";
            EXPECT_EQ(allocator.free(&buffer), KELM_OK);
            EXPECT_FALSE(isOpen(fd));
        }
        EXPECT_EQ(ion.count("ion_close"), row.failing == "ion_open" ? 0 : 1);
    }
}

TEST(BufferAllocatorTest, LibraryAndNotTheClientDecidesHowMuchIsMapped) {
    SimulatedIon ion;
    BufferAllocator allocator;
    KelmBuffer buffer = SimulatedIon::makeBuffer("tensor" + std::string(4090, '\0'));
    buffer.size = 6;
    EXPECT_EQ(allocator.free(nullptr), KELM_ERROR_INVALID_PARAM);
    EXPECT_EQ(allocator.import(0, &buffer), KELM_ERROR_INVALID_PARAM);
    EXPECT_EQ(ion.count("ion_open"), 0)
        << "a machine without ION is good enough until it is needed";

    ASSERT_EQ(allocator.import(buffer.fd, &buffer), KELM_OK);
    EXPECT_EQ(buffer.size, 4096u);
    void* data = nullptr;
    ASSERT_EQ(allocator.getBufferData(&buffer, &data), KELM_OK);
    EXPECT_STREQ(static_cast<char*>(data), "tensor");
    EXPECT_EQ(allocator.free(&buffer), KELM_OK);
    EXPECT_EQ(ion.live(), 0);
    EXPECT_NE(::msync(data, 4096, MS_ASYNC), 0) << "still mapped";

    KelmBuffer made{};
    ASSERT_EQ(allocator.alloc(4, &made), KELM_OK);
    ASSERT_EQ(allocator.getBufferData(&made, &data), KELM_OK);
    std::memcpy(data, "made", 4);
    int fd = 0;
    ASSERT_EQ(allocator.getShareFd(&made, &fd), KELM_OK);
    EXPECT_EQ(SimulatedIon::contentOf(fd, 4), "made");
    EXPECT_EQ(allocator.free(&made), KELM_OK);
    EXPECT_EQ(ion.live(), 0);
}

}  // namespace
}  // namespace kelm
