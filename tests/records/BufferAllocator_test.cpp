#include "records/BufferAllocator.h"

#include "fakes/ScriptedIon.h"
#include "fakes/TestPch.h"
#include "records/KelmTaskParam.h"
#include "utils/ShareMemory.h"

namespace kelm {
namespace {

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

TEST(BufferAllocatorTest, FailureLeavesOnlyTheClientsDescriptor) {
    const struct {
        const char* failing;
        bool byImport, byAlloc;
    } rows[] = {{"open", true, true}, {"alloc", false, true},  {"share", false, true},
                {"mmap", true, true}, {"import", true, false}, {"get_info", true, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.failing);
        ScriptedIon ion;
        ion.failing = row.failing;
        KelmBuffer buffer = ScriptedIon::makeBuffer("tensor");
        const int fd = buffer.fd;
        KelmBuffer made{};
        {
            BufferAllocator allocator;
            EXPECT_EQ(allocator.import(row.byImport ? fd : 0, &buffer),
                      row.byImport ? KELM_ERROR_BUFFER_ALLOC_FAILED : KELM_ERROR_INVALID_PARAM);
            EXPECT_EQ(allocator.alloc(row.byAlloc ? 4 : 0, &made),
                      row.byAlloc ? KELM_ERROR_BUFFER_ALLOC_FAILED : KELM_ERROR_INVALID_PARAM);
            EXPECT_EQ(buffer.buffer, 0u);
            EXPECT_EQ(made.fd, 0);
            EXPECT_TRUE(ion.handles.empty());
            EXPECT_TRUE(isOpen(fd));  // its task closes it
            EXPECT_EQ(allocator.free(&buffer), KELM_OK);
            EXPECT_FALSE(isOpen(fd));
        }
        EXPECT_EQ(ion.opened, 0);
    }
}

TEST(BufferAllocatorTest, DevicesWordDecidesHowMuchIsMapped) {
    KelmBuffer buffer = ScriptedIon::makeBuffer("tensor");
    // Without the library the task fails, not the service.
    EXPECT_EQ(BufferAllocator().import(buffer.fd, &buffer), KELM_ERROR_BUFFER_ALLOC_FAILED);
    ScriptedIon ion;
    BufferAllocator allocator;
    EXPECT_EQ(allocator.free(nullptr), KELM_ERROR_INVALID_PARAM);
    EXPECT_EQ(allocator.import(0, &buffer), KELM_ERROR_INVALID_PARAM);
    EXPECT_EQ(ion.opened, 0) << "opened before it is needed";

    ASSERT_EQ(allocator.import(buffer.fd, &buffer), KELM_OK);
    EXPECT_EQ(buffer.size, 4096u);
    void* data = nullptr;
    ASSERT_EQ(allocator.getBufferData(&buffer, &data), KELM_OK);
    EXPECT_STREQ(static_cast<char*>(data), "tensor");
    EXPECT_EQ(allocator.free(&buffer), KELM_OK);
    EXPECT_NE(::msync(data, 4096, MS_ASYNC), 0) << "still mapped";

    KelmBuffer made{};
    ASSERT_EQ(allocator.alloc(4, &made), KELM_OK);
    int fd = 0;
    ASSERT_EQ(allocator.getShareFd(&made, &fd), KELM_OK);
    EXPECT_EQ(ScriptedIon::contentOf(fd, 4), "made");
    EXPECT_EQ(allocator.free(&made), KELM_OK);
    EXPECT_TRUE(ion.handles.empty());
}

TEST(BufferAllocatorTest, MappingEndsWithItsTaskAndTheNameStays) {
    ShareMemory clients;
    const std::string name = "/kelm_test_task" + std::to_string(::getpid());
    ASSERT_NE(clients.create(name.c_str(), 4096), nullptr);
    KelmBuffer buffer{};
    buffer.type = KELM_BUFFER_SHARE_MEMORY;
    buffer.size = 4096;
    auto mapped = std::make_unique<ShareMemory>();
    void* const data = mapped->open(name.c_str(), 4096);
    ASSERT_NE(data, nullptr);
    buffer.buffer = reinterpret_cast<uint64_t>(data);
    buffer.shareMemory = reinterpret_cast<uint64_t>(mapped.release());
    delete KelmTaskParam::create(KelmBuffer{}, buffer, KelmBuffer{});
    EXPECT_NE(::msync(data, 4096, MS_ASYNC), 0) << "still mapped";
    EXPECT_NE(ShareMemory().open(name.c_str(), 4096), nullptr) << "the name is the client's";
}

}  // namespace
}  // namespace kelm
