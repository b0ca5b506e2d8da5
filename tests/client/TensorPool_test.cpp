#include "client/TensorPool.h"

#include <fcntl.h>
#include <sys/mman.h>

#include "utils/UniqueFd.h"

namespace kelm::client {
namespace {

UniqueFd openNamed(const Tensor& tensor) {
    return UniqueFd(::shm_open(tensor.name.c_str(), O_RDONLY, 0));
}

TEST(TensorPoolTest, SlotIsUsedAgainAndNeverByTwo) {
    TensorPool pool(100, 50);
    auto first = pool.acquire().value();
    const auto second = pool.acquire().value();
    const std::string name = first->inputTensor().name;
    EXPECT_NE(name, second->inputTensor().name);
    EXPECT_NE(name, first->outputTensor().name);
    EXPECT_EQ(first->input().size(), 100U);
    EXPECT_EQ(first->outputTensor().size, 50U);
    first->input()[0] = std::byte{42};
    std::byte read{};
    EXPECT_EQ(::pread(openNamed(first->inputTensor()).get(), &read, 1, 0), 1);
    EXPECT_EQ(read, std::byte{42});
    first.reset();
    EXPECT_EQ(pool.acquire().value()->inputTensor().name, name);
}

TEST(TensorPoolTest, NamesEndWithThePoolAndTheLastHandle) {
    auto pool = std::make_unique<TensorPool>(100, 50);
    auto held = pool->acquire().value();
    auto given = pool->acquire().value();
    const Tensor tensors[] = {given->inputTensor(), given->outputTensor(), held->inputTensor(),
                              held->outputTensor()};
    given.reset();
    for (const Tensor& tensor : tensors) EXPECT_TRUE(openNamed(tensor));
    pool.reset();
    EXPECT_FALSE(openNamed(tensors[0]) || openNamed(tensors[1]));
    held->output()[49] = std::byte{1};  // a handle may outlive the pool
    held.reset();
    for (const Tensor& tensor : tensors) EXPECT_FALSE(openNamed(tensor)) << tensor.name;
}

TEST(TensorPoolTest, MemoryThatCannotBeHadIsAnError) {
    const auto slot = TensorPool(100, size_t{1} << 62).acquire();
    ASSERT_FALSE(slot);
    EXPECT_EQ(slot.error().kind(), ErrorKind::kSystem);
}

}  // namespace
}  // namespace kelm::client
