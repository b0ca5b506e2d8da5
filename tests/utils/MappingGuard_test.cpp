#include "utils/MappingGuard.h"

#include "utils/UniqueFd.h"

namespace kelm {
namespace {

constexpr size_t kPage = 4096;
constexpr size_t kSize = 4 * kPage;

// A client's file, mapped by the service.
struct Mapping {
    Mapping() {
        shrink(kSize);
        data = static_cast<char*>(MappingGuard::map(file.get(), kSize));
        if (data != nullptr) std::memset(data, 'x', kSize);
    }
    ~Mapping() { EXPECT_TRUE(data == nullptr || MappingGuard::unmap(data, kSize)); }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    void shrink(size_t size) const {
        EXPECT_EQ(::ftruncate(file.get(), static_cast<off_t>(size)), 0);
    }
    bool isLost() const { return MappingGuard::isLost(data); }
    // Like threads that work on it together.
    char at(size_t index) const { return std::atomic_ref(data[index]).load(); }
    void set(size_t index, char value) const { std::atomic_ref(data[index]).store(value); }

    const UniqueFd file{::memfd_create("client", MFD_CLOEXEC)};
    char* data = nullptr;
};

// The next mapping of a round mostly gets the address of one that was lost.
TEST(MappingGuardTest, ShortenedFileIsLostAloneAndStaysUsable) {
    const Mapping before;
    for (size_t round = 0; round < 100; ++round) {
        const Mapping mapping;
        const Mapping behind;
        mapping.shrink(round % 4 * kPage);
        std::atomic<int> ready{0};
        const auto touch = [&](bool reads) {
            for (++ready; ready < 2;) std::this_thread::yield();
            for (size_t i = 0; i < kSize; i += 64) reads ? (void)mapping.at(i) : mapping.set(i, 1);
        };
        std::thread reader(touch, true);
        touch(false);
        reader.join();
        EXPECT_TRUE(mapping.isLost());
        mapping.set(kSize - 1, 'y');
        EXPECT_EQ(mapping.at(kSize - 1), 'y');
        EXPECT_EQ(mapping.at(kSize - 2), 0);
        for (const Mapping* other : {&before, &behind}) {
            EXPECT_FALSE(other->isLost());
            EXPECT_EQ(std::string(other->data, kSize), std::string(kSize, 'x'));
        }
    }
}

TEST(MappingGuardTest, OneMappingTooManyIsRefused) {
    const Mapping first;
    std::vector<void*> mappings;
    while (void* data = MappingGuard::map(first.file.get(), kPage)) mappings.push_back(data);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(mappings.size(), MappingGuard::kMaxMappings - 1);
    first.shrink(0);
    *static_cast<volatile char*>(mappings.back()) = 1;
    EXPECT_TRUE(MappingGuard::isLost(mappings.back()));
    for (void* data : mappings) EXPECT_TRUE(MappingGuard::unmap(data, kPage));
    EXPECT_FALSE(MappingGuard::isLost(mappings.back()));
    EXPECT_NE(Mapping().data, nullptr);
}

// What a bug of the service or a kill from outside raises.
TEST(MappingGuardDeathTest, OtherBusErrorEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const Mapping guarded;
    const UniqueFd file(::memfd_create("own", MFD_CLOEXEC));
    ASSERT_EQ(::ftruncate(file.get(), kPage), 0);
    void* const own = ::mmap(nullptr, kPage, PROT_READ, MAP_SHARED, file.get(), 0);
    ASSERT_EQ(::ftruncate(file.get(), 0), 0);
    const auto read = [](const void* data) { return *static_cast<const volatile char*>(data); };
    EXPECT_DEATH((void)read(own), "");
    EXPECT_DEATH(::raise(SIGBUS), "");
    ::munmap(own, kPage);
}

}  // namespace
}  // namespace kelm
