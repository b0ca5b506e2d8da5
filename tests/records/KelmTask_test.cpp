#include "records/KelmTask.h"

#include <fcntl.h>
#include <unistd.h>

#include "protocol/src/KelmProtocol.h"
#include "records/BufferAllocator.h"
#include "records/KelmClient.h"
#include "records/KelmGraph.h"
#include "records/KelmTaskParam.h"
#include "utils/BlockCache.h"

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
    void* const blocks[] = {cache.take(), cache.take(), cache.take()};
    for (void* block : blocks) cache.give(block);
    EXPECT_LE(cache.keptBlocks(), 2u);
    const std::set<void*> again{cache.take(), cache.take(), cache.take()};
    EXPECT_EQ(again.size(), 3u);  // none is handed out twice
    EXPECT_EQ(cache.keptBlocks(), 0u);
    for (void* block : again) cache.give(block);
}

}  // namespace
}  // namespace kelm
