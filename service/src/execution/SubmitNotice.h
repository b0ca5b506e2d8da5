#pragma once

#include <future>
#include <utility>

#include "utils/SerialPool.h"

namespace kelm {

// Runs `f` on the pool past its limit and gives a future of the KelmError. For graph operations:
// they are posted under a worker's mutex, where nothing may wait for room. They cannot pile up: the
// scheduler that asks for one waits for it before the next.
template <class F>
std::shared_future<int> submitNotice(SerialPool& pool, F&& f) {
    std::packaged_task<int()> task(std::forward<F>(f));
    std::shared_future<int> result = task.get_future().share();
    pool.postNotice([task = std::move(task)]() mutable { task(); });
    return result;
}

}  // namespace kelm
