#include "tools/gateway/LibkelmEngine.h"

#include <algorithm>
#include <utility>

#include "kelm/kelm.hpp"
#include "tools/gateway/Failure.h"

namespace kelm::gateway {

namespace {

// Runs a call of libkelm; its error as a Failure.
template <class Call>
auto translated(Call call) {
    try {
        return call();
    } catch (const Error& error) {
        throw Failure::ofKelm(error.code(), error.what());
    }
}

class LibkelmSlot : public EngineSlot {
 public:
    explicit LibkelmSlot(Slot slot) : m_slot(std::move(slot)) {}
    std::span<std::byte> input() override { return m_slot.input(); }
    std::span<std::byte> output() override { return m_slot.output(); }
    const Slot& get() const { return m_slot; }

 private:
    Slot m_slot;
};

class LibkelmGraph : public EngineGraph {
 public:
    // Slots of tasks that ran into their deadline are busy for longer than their requests.
    LibkelmGraph(Graph graph, uint32_t queue)
        : m_graph(std::move(graph)),
          m_pool(m_graph.makePool(0, 2 * (size_t{m_graph.info().window} + queue))) {}

    uint64_t inputBytes() const override { return m_graph.info().input_bytes; }
    uint64_t outputBytes() const override { return m_graph.info().output_bytes; }
    uint32_t window() const override { return m_graph.info().window; }
    std::unique_ptr<EngineSlot> acquire() override {
        return translated([&] { return std::make_unique<LibkelmSlot>(m_pool.acquire()); });
    }
    uint64_t start(EngineSlot& slot, const TaskWish& wish,
                   std::function<void(const TaskEnd&)> done) override {
        return translated([&] {
            return m_graph.start(
                static_cast<LibkelmSlot&>(slot).get(),
                {.deadline = wish.deadline, .priority = wish.priority},
                [done = std::move(done)](const kelm_result& result) {
                    done({.error = result.error,
                          .text = result.text,
                          .atService = std::chrono::nanoseconds(
                              result.total_ns - std::min(result.waited_ns, result.total_ns))});
                });
        });
    }
    void cancel(uint64_t ticket) override {
        // What cannot be taken back ends by itself.
        (void)kelm_cancel(m_graph.get(), ticket, nullptr);
    }

 private:
    Graph m_graph;
    Pool m_pool;
};

}  // namespace

LibkelmEngine::LibkelmEngine(std::string socketPath)
    : m_socketPath(std::move(socketPath)), m_thread([this] { watch(); }) {}

LibkelmEngine::~LibkelmEngine() {
    {
        MutexLock lock(m_mutex);
        m_isEnding = true;
    }
    m_ends.notifyAll();
    m_thread.join();
}

std::shared_ptr<Client> LibkelmEngine::connected() const {
    MutexLock lock(m_mutex);
    return m_client;
}

std::unique_ptr<EngineGraph> LibkelmEngine::load(const ModelDescription& model,
                                                 const std::string& graphFile) {
    const std::shared_ptr<Client> client = connected();
    if (client == nullptr) throw Failure(Cause::kUnavailable, whyNot());
    return translated([&] {
        Graph graph = client->loadFile(graphFile, {.name = model.name,
                                                   .tag = model.tag,
                                                   .streamId = model.streamId,
                                                   .subclass = model.subclass,
                                                   .expectDevices = model.expectedDevices,
                                                   .window = model.window,
                                                   .maxWaiting = model.queue + 1,
                                                   .deadline = {}});
        return std::make_unique<LibkelmGraph>(std::move(graph), model.queue);
    });
}

std::string LibkelmEngine::whyNot() const {
    const std::shared_ptr<Client> client = connected();
    if (client != nullptr && !client->isConnected()) return "the connection to the service is lost";
    MutexLock lock(m_mutex);
    return m_seen.whyNot;
}

uint32_t LibkelmEngine::devices(int32_t subclass) const {
    MutexLock lock(m_mutex);
    const auto found = m_seen.devices.find(subclass);
    return found == m_seen.devices.end() ? 0 : found->second;
}

LibkelmEngine::Seen LibkelmEngine::look() {
    try {
        std::shared_ptr<Client> client = connected();
        if (client == nullptr) {
            client = std::make_shared<Client>(ClientOptions{
                .name = "kelm-gateway", .socketPath = m_socketPath, .reconnect = true});
            MutexLock lock(m_mutex);
            m_client = client;
        }
        const Status status = client->status();
        Seen seen{status.info().device_count > 0 ? "" : "the service has no device"};
        for (const kelm_device_row& each : status.devices()) ++seen.devices[each.subclass];
        return seen;
    } catch (const Error& error) {
        return {std::string("the service does not answer: ") + error.what()};
    }
}

void LibkelmEngine::watch() {
    constexpr std::chrono::milliseconds kInterval(500);
    MutexLock lock(m_mutex);
    while (!m_isEnding) {
        lock.unlock();
        Seen seen = look();
        lock.lock();
        m_seen = std::move(seen);
        if (!m_isEnding) m_ends.waitFor(m_mutex, kInterval);
    }
}

}  // namespace kelm::gateway
