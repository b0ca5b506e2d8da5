// Inferences per second through libkelm on pooled tensors, at the service under KELM_RUN_DIR. The
// twin of library_rate.py: prints one line of JSON.
//
//   library_rate [--depth N] [--seconds S] [--dispatch]
//
// --dispatch: callbacks run in kelm_dispatch, as Python's do, and not on the library's thread.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>
#include <vector>

#include "kelm/kelm.h"

namespace {

struct Options {
    int depth = 8;
    double seconds = 5.0;
    bool dispatches = false;
};

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--dispatch") {
            options.dispatches = true;
        } else if (name == "--depth" && i + 1 < argc) {
            options.depth = std::atoi(argv[++i]);
        } else if (name == "--seconds" && i + 1 < argc) {
            options.seconds = std::atof(argv[++i]);
        } else {
            throw std::runtime_error("usage: library_rate [--depth N] [--seconds S] [--dispatch]");
        }
    }
    if (options.depth < 1 || !(options.seconds > 0)) {
        throw std::runtime_error("the depth and the seconds must be above 0");
    }
    return options;
}

void check(int error) {
    if (error != KELM_SUCCESS) throw std::runtime_error(kelm_last_error());
}

struct Run {
    kelm_graph* graph = nullptr;
    std::atomic<bool> stops{false};
    std::atomic<int> running{0};
    std::atomic<uint64_t> count{0};
    std::atomic<int> error{KELM_SUCCESS};
};

// A task that starts itself again with its slot.
struct Lane {
    Run& run;
    kelm_task task;

    static void done(const kelm_result* result, void* user) {
        static_cast<Lane*>(user)->ended(result->error);
    }
    void ended(int error) {
        if (error != KELM_SUCCESS) run.error = error;
        ++run.count;
        if (!run.stops && error == KELM_SUCCESS) {
            error = kelm_infer_async(run.graph, &task, nullptr);
            if (error == KELM_SUCCESS) return;
            run.error = error;
        }
        if (--run.running == 0) run.running.notify_all();
    }
};

int measure(const Options& options) {
    using Clock = std::chrono::steady_clock;
    KELM_INIT(kelm_client_options, clientOptions);
    clientOptions.flags = options.dispatches ? uint32_t{KELM_CLIENT_DISPATCH} : 0U;
    kelm_client* client = nullptr;
    check(kelm_connect(&clientOptions, &client));
    const char bytes[] = "graph of the rate";
    Run run;
    check(kelm_graph_from_memory(client, bytes, sizeof(bytes), nullptr, &run.graph));
    KELM_INIT(kelm_graph_info, info);
    check(kelm_graph_get_info(run.graph, &info));
    kelm_pool* pool = nullptr;
    check(kelm_pool_create(info.input_bytes, info.output_bytes, 0, 0, &pool));

    std::vector<Lane> lanes(static_cast<size_t>(options.depth), Lane{run, {}});
    run.running = options.depth;
    const Clock::time_point start = Clock::now();
    const auto end = start + std::chrono::duration<double>(options.seconds);
    for (Lane& lane : lanes) {
        lane.task.size = sizeof(lane.task);
        check(kelm_pool_acquire(pool, &lane.task.slot));
        lane.task.done = &Lane::done;
        lane.task.user = &lane;
        check(kelm_infer_async(run.graph, &lane.task, nullptr));
    }
    while (Clock::now() < end) {
        if (options.dispatches) {
            (void)kelm_dispatch(client, 100);
        } else {
            const timespec pause{0, 10000000};
            ::nanosleep(&pause, nullptr);
        }
    }
    run.stops = true;
    const uint64_t count = run.count;
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (int left = run.running; left != 0; left = run.running) {
        if (options.dispatches) {
            (void)kelm_dispatch(client, 100);
        } else {
            run.running.wait(left);
        }
    }
    for (const Lane& lane : lanes) kelm_slot_release(lane.task.slot);
    kelm_pool_free(pool);
    check(kelm_graph_free(run.graph));
    check(kelm_close(client));
    if (run.error != KELM_SUCCESS) throw std::runtime_error(kelm_error_name(run.error));
    std::printf("{\"language\": \"C++\", \"way\": \"%s\", \"depth\": %d, \"per_second\": %.0f}\n",
                options.dispatches ? "dispatch" : "callbacks", options.depth,
                static_cast<double>(count) / seconds);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return measure(parse(argc, argv));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "library_rate: %s\n", error.what());
        return 1;
    }
}
