#pragma once

#include "kelm/kelm.h"
#include "tools/gateway/Engine.h"
#include "tools/gateway/Failure.h"
#include "utils/Mutex.h"

namespace kelm {

// An engine whose graphs have an input and an output of 64 bytes and add one to each byte. Tasks
// end at once, or stay until they are released or canceled.
class FakeEngine : public gateway::Engine {
 public:
    static constexpr size_t kBytes = 64;
    using Done = std::function<void(const gateway::TaskEnd&)>;

    std::unique_ptr<gateway::EngineGraph> load(const gateway::ModelDescription& model,
                                               const std::string&) override {
        if (model.tag == "refuse") {
            throw gateway::Failure(gateway::Cause::kUnavailable, "no room for the graph");
        }
        return std::make_unique<Graph>(*this);
    }
    uint32_t devices(int32_t subclass) const override { return subclass == 0 ? 2 : 0; }
    std::string whyNot() const override { return isDown ? "there is no device" : ""; }

    void release(int error = 0) {
        std::map<uint64_t, Done> tasks;
        {
            MutexLock lock(m_mutex);
            tasks.swap(m_held);
        }
        for (const auto& [ticket, done] : tasks) done({.error = error, .text = "as told"});
    }
    size_t held() const {
        MutexLock lock(m_mutex);
        return m_held.size();
    }

    std::atomic<bool> isDown{false};
    std::atomic<bool> isHolding{false};
    std::atomic<int> graphs{0};
    std::atomic<uint32_t> priority{0};  // of the last task

 private:
    struct Slot : gateway::EngineSlot {
        std::span<std::byte> input() override { return m_input; }
        std::span<std::byte> output() override { return m_output; }
        std::array<std::byte, kBytes> m_input{};
        std::array<std::byte, kBytes> m_output{};
    };
    struct Graph : gateway::EngineGraph {
        explicit Graph(FakeEngine& owner) : engine(owner) { ++engine.graphs; }
        ~Graph() override { --engine.graphs; }
        uint64_t inputBytes() const override { return kBytes; }
        uint64_t outputBytes() const override { return kBytes; }
        uint32_t window() const override { return 1; }
        std::unique_ptr<gateway::EngineSlot> acquire() override { return std::make_unique<Slot>(); }
        uint64_t start(gateway::EngineSlot& slot, const gateway::TaskWish& wish,
                       Done done) override {
            engine.priority = wish.priority;
            std::ranges::transform(slot.input(), slot.output().begin(), [](std::byte each) {
                return static_cast<std::byte>(std::to_integer<int>(each) + 1);
            });
            if (!engine.isHolding) {
                done({});
                return 0;
            }
            MutexLock lock(engine.m_mutex);
            engine.m_held.emplace(++engine.m_last, std::move(done));
            return engine.m_last;
        }
        void cancel(uint64_t ticket) override {
            Done done;
            {
                MutexLock lock(engine.m_mutex);
                const auto task = engine.m_held.extract(ticket);
                if (!task.empty()) done = task.mapped();
            }
            if (done) done({.error = KELM_CANCELED, .text = "canceled"});
        }
        FakeEngine& engine;
    };

    mutable Mutex m_mutex;
    uint64_t m_last GUARDED_BY(m_mutex) = 0;
    std::map<uint64_t, Done> m_held GUARDED_BY(m_mutex);
};

}  // namespace kelm
