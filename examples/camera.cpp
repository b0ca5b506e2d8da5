// A camera loop: frames are submitted as they come, a few at a time, and their results are checked.
//   camera GRAPH [FRAMES]
#include <cstdlib>
#include <deque>
#include <iostream>

#include "kelm/kelm.hpp"

namespace {

constexpr size_t kDepth = 4;

struct Frame {
    uint64_t number;
    kelm::Slot slot;
    std::future<kelm::Result> result;
};

// Whether the result is that of the frame.
bool finish(Frame frame) {
    const kelm::Result result = frame.result.get();
    if (!result.ok()) std::cerr << "frame " << frame.number << " lost: " << result.message << "\n";
    return result.ok() && result.cookie == frame.number;
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc < 2) throw std::runtime_error("usage: camera GRAPH [FRAMES]");
    const uint64_t frames = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 100;
    kelm::Client client({.name = "camera", .reconnect = true});
    kelm::Graph graph = client.loadFile(argv[1]);
    kelm::Pool pool = graph.makePool();
    std::deque<Frame> running;
    uint64_t good = 0;
    const auto finishOldest = [&] {
        good += finish(std::move(running.front())) ? 1 : 0;
        running.pop_front();
    };
    for (uint64_t number = 0; number < frames; ++number) {
        kelm::Slot slot = pool.acquire();
        slot.input()[0] = static_cast<std::byte>(number);  // the image
        auto result = graph.start(slot, {.cookie = number});
        running.push_back({number, std::move(slot), std::move(result)});
        if (running.size() == kDepth) finishOldest();
    }
    while (!running.empty()) finishOldest();
    std::cout << good << " of " << frames << " frames\n";
    return good == frames ? 0 : 1;
} catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
}
