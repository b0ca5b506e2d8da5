#include "records/BufferAllocator.h"

#include "fakes/SimulatedLibraries.h"
#include "fakes/TestPch.h"
#include "records/KelmTaskParam.h"
#include "utils/ShareMemory.h"
#include "utils/UniqueFd.h"

namespace kelm {
namespace {

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

// Each failure leaves no handle and no descriptor but the client's own.
TEST(BufferAllocatorTest, FailureKeepsAHandleOrEndsTheProcess) {
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

TEST(BufferAllocatorTest, ClientsWordDecidesHowMuchIsMapped) {
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

TEST(BufferAllocatorTest, MappingOutlivesItsTask) {
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
